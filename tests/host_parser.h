// A host program's own parser: it bears the names that the library's parser bears too.
#ifndef QVLIB_TESTS_HOST_PARSER_H
#define QVLIB_TESTS_HOST_PARSER_H

extern "C" {
extern int host_calls; // of any function below
int yylex();
int yyparse();
void yyerror(const char *message);
int yylex_init(void **scanner);
int yylex_destroy(void *scanner);
void *yy_scan_string(const char *text);
void *yy_scan_bytes(const char *bytes, int length);
void *yy_scan_buffer(char *base, unsigned long size);
void *yyalloc(unsigned long size);
void *yyget_extra(void *scanner);
}

#endif

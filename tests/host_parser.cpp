#include "host_parser.h"

// The host's grammar accepts the tokens 3, 2, 1. None of its functions fits the library's, and none may be
// called by it.
int host_calls = 0;

static int next_token = 3;

int yylex()
{
    host_calls++;
    return next_token > 0 ? next_token-- : 0;
}

int yyparse()
{
    host_calls++;
    next_token = 3;
    int seen = 0;
    for (int token; (token = yylex()) != 0;)
        seen = seen * 10 + token;
    return seen;
}

void yyerror(const char *)
{
    host_calls++;
}

int yylex_init(void **)
{
    host_calls++;
    return 5;
}

int yylex_destroy(void *)
{
    host_calls++;
    return 5;
}

void *yy_scan_string(const char *)
{
    host_calls++;
    return nullptr;
}

void *yy_scan_bytes(const char *, int)
{
    host_calls++;
    return nullptr;
}

void *yy_scan_buffer(char *, unsigned long)
{
    host_calls++;
    return nullptr;
}

void *yyalloc(unsigned long)
{
    host_calls++;
    return nullptr;
}

void *yyget_extra(void *)
{
    host_calls++;
    return nullptr;
}

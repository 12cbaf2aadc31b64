/*
 * The corelink grammar, as bison reads it: the slow reference for the library's parser. Each action is one step that
 * builds the tree while the text is read.
 */
%require "3.8"
%define api.pure full
%define api.prefix {reference_}
%define api.value.type {union reference::token}
%parse-param { void *scanner } { reference::document *document }
%lex-param { void *scanner }

%code requires {
#include "reference_reader.h"
}

%code {
#include <cstdlib>

// The stack has 64 entries at first and is doubled up to 10000.
#define YYINITDEPTH 64
#define YYMAXDEPTH 10000
#define REFERENCE_STYPE_IS_TRIVIAL 1
#define YYMALLOC malloc
#define YYFREE free

int reference_lex(union reference::token *value, void *scanner);

static void reference_error(void *, reference::document *document, const char *message)
{
    document->fail(message);
}
}

%token <text> IDENTIFIER 258 STRING 259
%token <number> NUMBER 260
%token <boolean> BOOLEAN 261

%%

document: member_list

member_list: member
    | member_list ',' member

member: IDENTIFIER                  { document->add_null($1); }
    | IDENTIFIER '=' value          { document->add_member($1); }
    | prefix '.' member             { document->leave_prefix(); }

prefix: IDENTIFIER                  { if (!document->enter_prefix($1)) { yyerror(scanner, document, "syntax error");
                                                                         YYABORT; } }

value: STRING                       { document->set_string($1); }
    | NUMBER                        { document->set_number($1); }
    | BOOLEAN                       { document->set_boolean($1); }
    | struct_open '}'               { document->close(CLPARSE_TYPE_STRUCT); }
    | struct_open member_list '}'   { document->close(CLPARSE_TYPE_STRUCT); }
    | array_open ']'                { document->close(CLPARSE_TYPE_ARRAY); }
    | array_open element_list ']'   { document->close(CLPARSE_TYPE_ARRAY); }

struct_open: '{'                    { document->open(); }

array_open: '['                     { document->open(); }

element_list: value                 { document->add_element(); }
    | element_list ',' value        { document->add_element(); }

%%

/*
 * The corelink grammar. Each action is one step of the builder, which makes the tree while the text is read.
 */
%require "3.8"
%define api.pure full
%define api.prefix {grammar_}
%define api.value.type {union clparse_token}
%parse-param { void *scanner } { clparse_head *head } { qv::tree_builder *builder }
%lex-param { void *scanner }

%code requires {
#include "builder.h"
}

%code top {
#include <cstdlib>
#include <qvlib/memcheck.h>
#include "builder.h"
#include "../where.h"
}

%code {
// 64 entries at first, doubled up to 10000 through tracked allocation.
#define YYINITDEPTH 64
#define YYMAXDEPTH 10000
#define GRAMMAR_STYPE_IS_TRIVIAL 1
#define YYMALLOC(size) qv_memcheck_malloc(malloc, (size), "yyparse", __LINE__)
#define YYFREE(stack) qv_memcheck_free(qv_free, (stack), QV_WHERE)

// A step of the builder that may fail.
#define STEP(result)                                                                                         \
    switch (result) {                                                                                        \
    case qv::build_result::done:                                                                             \
        break;                                                                                               \
    case qv::build_result::syntax_error:                                                                     \
        grammar_error(scanner, head, builder, "syntax error");                                               \
        YYABORT;                                                                                             \
    case qv::build_result::out_of_memory:                                                                    \
        YYNOMEM;                                                                                             \
    }
}

%token <str> IDENTIFIER 258 STRING 259
%token <num> NUMBER 260
%token <boolean> BOOLEAN 261

%%

document: member_list

member_list: member
    | member_list ',' member

member: IDENTIFIER                  { STEP(builder->add_null($1)) }
    | IDENTIFIER '=' value          { STEP(builder->add_member($1)) }
    | prefix '.' member             { builder->leave_prefix(); }

prefix: IDENTIFIER                  { STEP(builder->enter_prefix($1)) }

value: STRING                       { builder->set_string($1); }
    | NUMBER                        { builder->set_number($1); }
    | BOOLEAN                       { builder->set_boolean($1); }
    | struct_open '}'               { builder->close(CLPARSE_TYPE_STRUCT); }
    | struct_open member_list '}'   { builder->close(CLPARSE_TYPE_STRUCT); }
    | array_open ']'                { builder->close(CLPARSE_TYPE_ARRAY); }
    | array_open element_list ']'   { builder->close(CLPARSE_TYPE_ARRAY); }

struct_open: '{'                    { STEP(builder->open()) }

array_open: '['                     { STEP(builder->open()) }

element_list: value                 { STEP(builder->add_element()) }
    | element_list ',' value        { STEP(builder->add_element()) }

%%

// The call site of a release, as "../src/log.cpp:120".
#pragma once

#define QV_STRINGIZE_(x) #x
#define QV_STRINGIZE(x) QV_STRINGIZE_(x)
#define QV_WHERE __FILE__ ":" QV_STRINGIZE(__LINE__)

/* A log library that is not ours: formats every line, and keeps none. Any thread may log. */
#include <stdarg.h>
#include <stdio.h>
#include <string.h>

__attribute__((format(printf, 5, 6))) void LogInfo(int level, const char* tag, const char* function, int line,
                                                   const char* format, ...);
int ForeignLogErrors(void);
int ForeignLogLines(void);

static int g_lines;
static int g_errors;

int ForeignLogErrors(void) { return __atomic_load_n(&g_errors, __ATOMIC_SEQ_CST); }
int ForeignLogLines(void) { return __atomic_load_n(&g_lines, __ATOMIC_SEQ_CST); }

void LogInfo(int level, const char* tag, const char* function, int line, const char* format, ...) {
    char text[4096];
    va_list arguments;
    va_start(arguments, format);
    vsnprintf(text, sizeof(text), format, arguments);
    va_end(arguments);
    if (strcmp(tag, "LUMRA") == 0 && function[0] != '\0' && line > 0) {
        __atomic_add_fetch(&g_lines, 1, __ATOMIC_SEQ_CST);
    }
    if (level == 4) {
        fputs(text, stderr);
        __atomic_add_fetch(&g_errors, 1, __ATOMIC_SEQ_CST);
    }
}

#include "common/diag.h"

#include <cstdarg>
#include <cstdio>
#include <cstdlib>
#include <cstring>

namespace tvx::diag {
namespace {

// Each diagnostic leaves in one write, so lines from concurrent programs do not mix. Long
// texts (a caller's user name can be any length) get a heap buffer rather than being cut;
// should that fail, the text is streamed in pieces instead.
void emit(const char *head, const char *format, va_list args)
{
    char text[512];
    va_list again;
    va_copy(again, args);
    int n = std::vsnprintf(text, sizeof text, format, args);
    if (n < 0) {
        va_end(again);
        return;
    }
    if (static_cast<size_t>(n) < sizeof text) {
        std::fprintf(stderr, "%s%s\n", head, text);
    } else if (char *big = static_cast<char *>(std::malloc(static_cast<size_t>(n) + 1))) {
        std::vsnprintf(big, static_cast<size_t>(n) + 1, format, again);
        std::fprintf(stderr, "%s%s\n", head, big);
        std::free(big);
    } else {
        std::fputs(head, stderr);
        std::vfprintf(stderr, format, again);
        std::fputc('\n', stderr);
    }
    va_end(again);
}

} // namespace

const char *unitFile(Unit unit) { return unit == Unit::Agent ? "snmp/ts2hardware.cpp" : "ipmihelpers.cpp"; }

void located(Unit unit, int line, const char *function, const char *format, ...)
{
    char head[256];
    std::snprintf(head, sizeof head, "\n%s:%d (%s) ", unitFile(unit), line, function);
    va_list args;
    va_start(args, format);
    emit(head, format, args);
    va_end(args);
}

void errorAt(Unit unit, int line, const char *format, ...)
{
    char head[128];
    std::snprintf(head, sizeof head, "ERROR: %s:%d ", unitFile(unit), line);
    va_list args;
    va_start(args, format);
    emit(head, format, args);
    va_end(args);
}

void errorLine(int line, const char *format, ...)
{
    char head[32];
    std::snprintf(head, sizeof head, "ERROR: %d ", line);
    va_list args;
    va_start(args, format);
    emit(head, format, args);
    va_end(args);
}

void lineForm(int line, const char *format, ...)
{
    char head[32];
    std::snprintf(head, sizeof head, "%d, ", line);
    va_list args;
    va_start(args, format);
    emit(head, format, args);
    va_end(args);
}

void plain(const char *text) { std::fwrite(text, 1, std::strlen(text), stderr); }

void plainFormat(const char *format, ...)
{
    va_list args;
    va_start(args, format);
    std::vfprintf(stderr, format, args);
    va_end(args);
}

} // namespace tvx::diag

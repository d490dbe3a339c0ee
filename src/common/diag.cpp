#include "common/diag.h"

#include <cstdarg>
#include <cstdio>
#include <cstring>

namespace tvx::diag {
namespace {

// Each diagnostic leaves in one write, so lines from concurrent programs do not mix.
void emit(const char *head, const char *format, va_list args)
{
    char text[1024];
    std::vsnprintf(text, sizeof text, format, args);
    std::fprintf(stderr, "%s%s\n", head, text);
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

} // namespace tvx::diag

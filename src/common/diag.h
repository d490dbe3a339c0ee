// The library's diagnostics: four fixed forms, written to the standard error stream only.
//
//   located  "\n<file>:<line> (<function>) <text>\n"
//   error    "ERROR: <file>:<line> <text>\n"  or  "ERROR: <line> <text>\n"
//   line     "<line>, <text>\n"
//   plain    "<text>" exactly as given, written with fwrite
//
// <file> is the name of the source unit the diagnostic belongs to: the helper layer prints
// "ipmihelpers.cpp", the agent getters "snmp/ts2hardware.cpp"; <line> is the line of the
// statement that writes it.
#pragma once

namespace tvx::diag {

enum class Unit { Helpers, Agent };

const char *unitFile(Unit unit);

void located(Unit unit, int line, const char *function, const char *format, ...)
    __attribute__((format(printf, 4, 5)));
void errorAt(Unit unit, int line, const char *format, ...) __attribute__((format(printf, 3, 4)));
void errorLine(int line, const char *format, ...) __attribute__((format(printf, 2, 3)));
void lineForm(int line, const char *format, ...) __attribute__((format(printf, 2, 3)));
void plain(const char *text);
// A plain text with values filled in ("\nrecordId = 0x%x\n").
void plainFormat(const char *format, ...) __attribute__((format(printf, 1, 2)));

} // namespace tvx::diag

#define TVX_DIAG_LOCATED(unit, ...) ::tvx::diag::located((unit), __LINE__, __func__, __VA_ARGS__)
#define TVX_DIAG_ERROR_AT(unit, ...) ::tvx::diag::errorAt((unit), __LINE__, __VA_ARGS__)
#define TVX_DIAG_ERROR_LINE(...) ::tvx::diag::errorLine(__LINE__, __VA_ARGS__)
#define TVX_DIAG_LINE(...) ::tvx::diag::lineForm(__LINE__, __VA_ARGS__)

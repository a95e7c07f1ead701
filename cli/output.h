// What the command writes for people: names made safe for a terminal, the end of its
// output checked, and the one message of memory exhaustion.
#ifndef FSIC_CLI_OUTPUT_H
#define FSIC_CLI_OUTPUT_H

#include <string>
#include <string_view>

namespace fsic::cli {

// `text` with its control bytes (below 0x20, and 0x7f) and backslashes escaped (\n, \t,
// \\, \xNN), so that a file name cannot forge or erase lines of a report on a terminal.
std::string text_escape(std::string_view text);

// Flushes standard output and standard error. `status`, or 22 with a message when the
// output could not be written (the report did not reach its reader).
int finish_output(int status);

// Says "fsic: out of memory" and gives 23.
int out_of_memory();

} // namespace fsic::cli

#endif // FSIC_CLI_OUTPUT_H

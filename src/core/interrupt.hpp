#pragma once
// SIGINT and SIGTERM end the run at once, even inside a long library call:
// the handler removes the temporary files being written (the finished files
// stay as they are), writes one line naming the running command and its
// script line on standard error, and exits with 128 + the signal number
// (130 for SIGINT, 143 for SIGTERM).
//
// This is the one place with process-wide mutable state: a signal handler
// can reach nothing else.  The handler only reads preformatted bytes and
// calls unlink, write and _exit, which are safe inside a signal handler.
#include <string>
#include <string_view>

namespace torix {

void install_interrupt_handlers();

// Set by the command loop before each command: the message an interrupt
// prints is "<script>:<line>: <keyword>: interrupted by SIGINT".
void note_running_command(std::string_view script, int line, std::string_view keyword);

// The table of temporary files being written.  register_temporary returns a
// slot (or -1 when the table is full or the name too long: that file is then
// not removed by an interrupt); release_temporary frees it once the file has
// been renamed or removed.
int register_temporary(const std::string& path);
void release_temporary(int slot);

}  // namespace torix

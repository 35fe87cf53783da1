// The terminal as the operator's console: single key presses without Enter,
// a terminal state that is put back on every way out, and console control
// events (interrupt, hang-up, termination) delivered on a thread of their own.
#pragma once

#include <cstddef>
#include <cstdint>

// Console control events, numbered as the miner's handler expects them.
enum : uint32_t {
  VLConsoleEventInterrupt = 0,  // control-C
  VLConsoleEventBreak = 1,
  VLConsoleEventClose = 2,  // the terminal hung up
  VLConsoleEventLogoff = 5,
  VLConsoleEventShutdown = 6,  // termination request
};

using VLConsoleCtrlHandler = bool (*)(uint32_t event);

// Blocks the console signals in the calling thread, and so in every thread it
// starts afterwards, and starts the thread that delivers them to `handler`.
// Call it before any other thread exists. Returns false when the thread could
// not start.
bool VLConsoleSetCtrlHandler(VLConsoleCtrlHandler handler);

// Puts a terminal on standard input into single-key mode (no line buffering,
// no echo; control-C still interrupts). Harmless when standard input is not a
// terminal. The previous state comes back at exit, on a fatal signal, and on
// VLConsoleRestore.
void VLConsoleBeginKeys();

// Throws away keys typed but not yet read, so that an answer can only come
// after its question.
void VLConsoleDiscardInput();

// True when keys are read: standard input is a terminal in single-key mode.
bool VLConsoleHasKeys();

// Reads the keys pressed since the last call, without waiting. Returns how
// many were stored; 0 when there are none or standard input is no terminal.
size_t VLConsoleReadKeys(char *keys, size_t capacity);

// Puts the terminal back as it was. Safe to call more than once, and from a
// signal handler or just before a forced exit.
void VLConsoleRestore();

// Ends the process at once with `code`, terminal restored first.
[[noreturn]] void VLProcessTerminate(int code);

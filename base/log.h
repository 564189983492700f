// Log lines on standard output and standard error. A line is one system call, so it is neither torn
// nor mixed with another thread's or program's; where it goes to a pipe or a socket that has no
// space for it, it is dropped whole: a reader of the log that hangs never stops the daemon. A file
// or a terminal may take only a part, and gets the rest by a further call; where that fails, on a
// file system that is full for instance, the next line still begins on a line of its own.
#pragma once

#include <cstddef>
#include <initializer_list>
#include <string_view>

/// The longest line, its line feed included; longer ones are cut. No line that the daemon writes
/// comes near it, and a pipe takes as much in one piece.
constexpr size_t kLogLineSize = 512;

/// A thread that lives as long as the daemon could not be created: responder, answering, monitor.
constexpr char kNoLastingThread[] = "[Bonjour] pthread_create error";
/// A thread that ends by itself could not be created: a prober, a sender.
constexpr char kNoPassingThread[] = "[Bonjour] pthread_create";

/// Looks at standard output and standard error and makes sure that no line waits for a reader: a
/// pipe is opened once more for this process alone, so that no other writer's view of it changes,
/// or, where /proc does not show it, made non-blocking itself. Terminals and files stay as they
/// are. Without it lines are written too, but may wait. Initial thread, before any other runs.
void InitLog();

/// Writes a line to standard output: a text, or several one after the other. Any thread.
void LogLine(const char* text);
void LogLine(std::initializer_list<std::string_view> parts);

/// Writes `text` and the system's text for `error`, an errno value, to standard error, as perror(3)
/// does. Any thread.
void LogError(const char* text, int error);

/// Writes "[Bonjour] malloc error" and the system's text for errno to standard error. Any thread.
void LogNoMemory();

/// Writes "[<caller>] UpdateHostIP error" to standard output. Any thread.
void LogUpdateHostIPError(const char* caller);

// The log lines that more than one module writes. A line of a single module stands in that module.
#pragma once

/// Start-up and supervision could not create a thread.
constexpr char kThreadCreateError[] = "[Bonjour] pthread_create error";
/// A prober or a sender thread could not be created.
constexpr char kShortThreadCreateError[] = "[Bonjour] pthread_create";

/// Writes `text` and the system's text for `error` to standard error, as perror(3) does. For calls
/// that return their error instead of setting errno. Any thread.
void LogError(const char* text, int error);

/// Writes "[Bonjour] malloc error" and the system's text for errno to standard error. Any thread.
void LogNoMemory();

/// Writes "[<caller>] UpdateHostIP error" to standard output. Any thread.
void LogUpdateHostIPError(const char* caller);

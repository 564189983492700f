// How ThreadSanitizer watches the daemon with the standard responder.

// Its responder ends the process, within a second: nobody joins the other threads, and the
// sanitizer has no second of its own to wait for their reports.
extern "C" __attribute__((visibility("default"))) const char* __tsan_default_options() {
  return "report_thread_leaks=0:atexit_sleep_ms=0";
}

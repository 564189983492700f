// Lock annotations that clang checks at compile time (-Wthread-safety); other compilers see
// nothing.
#pragma once

#if defined(__clang__)
#define BONJOUR_ANNOTATION(x) __attribute__((x))
#else
#define BONJOUR_ANNOTATION(x)
#endif

/// Marks a type whose objects are locks.
#define CAPABILITY(name) BONJOUR_ANNOTATION(capability(name))
/// Marks a type whose objects hold a lock for as long as they live.
#define SCOPED_CAPABILITY BONJOUR_ANNOTATION(scoped_lockable)
/// Data that may only be touched while the lock is held.
#define GUARDED_BY(lock) BONJOUR_ANNOTATION(guarded_by(lock))
/// A function whose caller holds the lock.
#define REQUIRES(lock) BONJOUR_ANNOTATION(requires_capability(lock))
/// A function that takes the lock and returns with it.
#define ACQUIRE(...) BONJOUR_ANNOTATION(acquire_capability(__VA_ARGS__))
/// A function that gives the lock back.
#define RELEASE(...) BONJOUR_ANNOTATION(release_capability(__VA_ARGS__))
/// A function whose locking the analysis can't follow; a reason stands beside each use.
#define NO_LOCK_ANALYSIS BONJOUR_ANNOTATION(no_thread_safety_analysis)

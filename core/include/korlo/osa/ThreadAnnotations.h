#pragma once
// Names for what a lock guards. Clang checks them (-Wthread-safety); every other compiler reads past them.

#if defined(__clang__)
#define KORLO_THREAD_ANNOTATION(x) __attribute__((x))
#else
#define KORLO_THREAD_ANNOTATION(x)
#endif

/// A class that can be held, such as a mutex.
#define KORLO_CAPABILITY(name) KORLO_THREAD_ANNOTATION(capability(name))
/// A class that holds a lock from its constructor to its destructor.
#define KORLO_SCOPED_CAPABILITY KORLO_THREAD_ANNOTATION(scoped_lockable)
/// A member that is read and written only while the lock is held.
#define KORLO_GUARDED_BY(lock) KORLO_THREAD_ANNOTATION(guarded_by(lock))
/// A pointer whose target is used only while the lock is held; the pointer itself does not change.
#define KORLO_PT_GUARDED_BY(lock) KORLO_THREAD_ANNOTATION(pt_guarded_by(lock))
/// The function is called with the lock held (for writing, or for reading).
#define KORLO_REQUIRES(...) KORLO_THREAD_ANNOTATION(requires_capability(__VA_ARGS__))
#define KORLO_REQUIRES_SHARED(...) KORLO_THREAD_ANNOTATION(requires_shared_capability(__VA_ARGS__))
/// The function takes the lock itself; the caller must not hold it.
#define KORLO_EXCLUDES(...) KORLO_THREAD_ANNOTATION(locks_excluded(__VA_ARGS__))
/// The function returns with the lock taken (for writing, or for reading).
#define KORLO_ACQUIRE(...) KORLO_THREAD_ANNOTATION(acquire_capability(__VA_ARGS__))
#define KORLO_ACQUIRE_SHARED(...) KORLO_THREAD_ANNOTATION(acquire_shared_capability(__VA_ARGS__))
/// The function takes the lock when it returns the given value.
#define KORLO_TRY_ACQUIRE(...) KORLO_THREAD_ANNOTATION(try_acquire_capability(__VA_ARGS__))
/// The function returns with the lock released, however it was held.
#define KORLO_RELEASE(...) KORLO_THREAD_ANNOTATION(release_capability(__VA_ARGS__))
#define KORLO_RELEASE_GENERIC(...) KORLO_THREAD_ANNOTATION(release_generic_capability(__VA_ARGS__))
/// The function returns a reference to the lock.
#define KORLO_RETURN_CAPABILITY(lock) KORLO_THREAD_ANNOTATION(lock_returned(lock))
/// Switches the check off for one function. The line above says why.
#define KORLO_NO_THREAD_SAFETY_ANALYSIS KORLO_THREAD_ANNOTATION(no_thread_safety_analysis)

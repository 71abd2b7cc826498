// What the second compiler checks of locks: which variable needs which lock, and which function expects it held. See
// "Thread Safety Analysis" in Clang's documentation; to other compilers these words mean nothing.
#pragma once

#ifdef __clang__
#define KIOSK_THREAD_SAFETY(attribute) __attribute__((attribute))
#else
#define KIOSK_THREAD_SAFETY(attribute)
#endif

#define CAPABILITY(name) KIOSK_THREAD_SAFETY(capability(name))
#define SCOPED_CAPABILITY KIOSK_THREAD_SAFETY(scoped_lockable)
#define GUARDED_BY(lock) KIOSK_THREAD_SAFETY(guarded_by(lock))
#define PT_GUARDED_BY(lock) KIOSK_THREAD_SAFETY(pt_guarded_by(lock))
#define REQUIRES(...) KIOSK_THREAD_SAFETY(requires_capability(__VA_ARGS__))
#define REQUIRES_SHARED(...) KIOSK_THREAD_SAFETY(requires_shared_capability(__VA_ARGS__))
#define ACQUIRE(...) KIOSK_THREAD_SAFETY(acquire_capability(__VA_ARGS__))
#define ACQUIRE_SHARED(...) KIOSK_THREAD_SAFETY(acquire_shared_capability(__VA_ARGS__))
#define RELEASE(...) KIOSK_THREAD_SAFETY(release_generic_capability(__VA_ARGS__))
#define NO_THREAD_SAFETY_ANALYSIS KIOSK_THREAD_SAFETY(no_thread_safety_analysis)

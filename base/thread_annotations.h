// clang checks at compile time what these say about locks; other compilers see nothing.
#pragma once

#if defined(__clang__)
#define LUMORA_THREAD_ATTRIBUTE(x) __attribute__((x))
#else
#define LUMORA_THREAD_ATTRIBUTE(x)
#endif

#define CAPABILITY(x) LUMORA_THREAD_ATTRIBUTE(capability(x))
#define SCOPED_CAPABILITY LUMORA_THREAD_ATTRIBUTE(scoped_lockable)
#define GUARDED_BY(x) LUMORA_THREAD_ATTRIBUTE(guarded_by(x))
#define REQUIRES(...) LUMORA_THREAD_ATTRIBUTE(requires_capability(__VA_ARGS__))
#define EXCLUDES(...) LUMORA_THREAD_ATTRIBUTE(locks_excluded(__VA_ARGS__))
#define ACQUIRED_BEFORE(...) LUMORA_THREAD_ATTRIBUTE(acquired_before(__VA_ARGS__))
#define ACQUIRED_AFTER(...) LUMORA_THREAD_ATTRIBUTE(acquired_after(__VA_ARGS__))
#define ACQUIRE(...) LUMORA_THREAD_ATTRIBUTE(acquire_capability(__VA_ARGS__))
#define RELEASE(...) LUMORA_THREAD_ATTRIBUTE(release_capability(__VA_ARGS__))
#define TRY_ACQUIRE(...) LUMORA_THREAD_ATTRIBUTE(try_acquire_capability(__VA_ARGS__))
#define NO_THREAD_SAFETY_ANALYSIS LUMORA_THREAD_ATTRIBUTE(no_thread_safety_analysis)

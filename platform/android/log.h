// The system log.
//
// Safe from any thread; errno is as before after every call. Lines never mix.

#pragma once

#include <stddef.h>
#include <stdint.h>

// The names are the platform's. NOLINTBEGIN(bugprone-reserved-identifier)
extern "C" {

typedef enum android_LogPriority {
    ANDROID_LOG_UNKNOWN = 0,
    ANDROID_LOG_DEFAULT,
    ANDROID_LOG_VERBOSE,
    ANDROID_LOG_DEBUG,
    ANDROID_LOG_INFO,
    ANDROID_LOG_WARN,
    ANDROID_LOG_ERROR,
    ANDROID_LOG_FATAL,
    ANDROID_LOG_SILENT,
} android_LogPriority;

// Logs one message; a null tag stands for the program's name.
// Returns 1, or -EPERM when the priority is below the minimum: then nothing is formatted.
int __android_log_print(int prio, const char* tag, const char* fmt, ...)
    __attribute__((__format__(printf, 3, 4)));

struct __android_log_message {
    size_t struct_size;
    int32_t buffer_id;  // Always 0, the main log.
    int32_t priority;
    const char* tag;   // Never null.
    const char* file;  // Null: nobody tells it.
    uint32_t line;
    const char* message;
};

// The message and its strings live until the logger returns. Called on the thread that logs, by
// several threads at a time.
typedef void (*__android_logger_function)(const struct __android_log_message* log_message);

// The logger at the start. Writes "P/TAG(PID): message" to standard error, P one of V D I W E F.
void __android_log_stderr_logger(const struct __android_log_message* log_message);

// Sends the messages that pass the minimum to `logger`.
void __android_log_set_logger(__android_logger_function logger);

// ANDROID_LOG_DEFAULT, which it is before the first call, means ANDROID_LOG_INFO.
// Returns the previous value.
int32_t __android_log_set_minimum_priority(int32_t priority);
int32_t __android_log_get_minimum_priority(void);

}  // extern "C"
// NOLINTEND(bugprone-reserved-identifier)

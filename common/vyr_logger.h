/* Process-wide logger of the vyr framework. */
#ifndef VYR_LOGGER_H
#define VYR_LOGGER_H

#include <pthread.h>
#include <stddef.h>
#include <stdint.h>
#include <stdio.h>

#ifdef __cplusplus
extern "C" {
#endif

/* syslog-numbered levels */
#define VYR_LOG_LEVEL_ERROR 3
#define VYR_LOG_LEVEL_WARNING 4
#define VYR_LOG_LEVEL_NOTICE 5
#define VYR_LOG_LEVEL_INFO 6
#define VYR_LOG_LEVEL_DEBUG 7

typedef enum vyr_logger_kind {
    VYR_LOGGER_STDERR = 0,
    VYR_LOGGER_SYSLOG = 1,
    VYR_LOGGER_FILE = 2,
    VYR_LOGGER_FUNC = 3,
} vyr_logger_kind_t;

/* Called with the same arguments as _vyr_log. */
typedef void (*vyr_log_func_t)(int level, const char *format, ...);

/* Carries one image's logger state into another (host -> plug-in). */
typedef struct vyr_logger_ctx {
    uint32_t kind;
    FILE *stream;
    vyr_log_func_t log_func;
    int level;
    pthread_mutex_t *mutex;
} vyr_logger_ctx_t;

/* -1 means "not yet initialised"; the first message initialises it. */
extern int vyr_log_level;

int vyr_set_log_level(int level);
void vyr_set_log_func(vyr_log_func_t func, int level);
vyr_log_func_t vyr_get_log_func(void);
vyr_logger_ctx_t *vyr_get_logger_ctx(void);
void vyr_destroy_logger_ctx(vyr_logger_ctx_t *ctx);
int _vyr_register_logger(vyr_logger_ctx_t *ctx);
int vyr_init_stderr_logger(int level);
int vyr_init_file_logger(const char *path, int level);
int vyr_init_syslog_logger(const char *identity, int level);
void vyr_close_logger(void);
void __vyr_init_logger_default(void);
void _vyr_log(int level, const char *format, ...) __attribute__((format(printf, 2, 3)));
void vyr_dump_timestamp_logger(FILE *stream);
const char *vyr_priority_level_string_logger(int level);
void log_hex(const void *data, size_t length);

/* The one call-site pattern: initialise if unset, gate on the level, then the
 * registered log function or the default writer. Arguments are not formatted
 * when the level gates the message out. */
#define VYR_LOG(level, ...)                                                                       \
    do {                                                                                          \
        if (__atomic_load_n(&vyr_log_level, __ATOMIC_RELAXED) == -1) __vyr_init_logger_default(); \
        if ((unsigned)__atomic_load_n(&vyr_log_level, __ATOMIC_RELAXED) >= (unsigned)(level)) {   \
            vyr_log_func_t vyr_log_fn_ = vyr_get_log_func();                                      \
            if (vyr_log_fn_)                                                                      \
                vyr_log_fn_((level), __VA_ARGS__);                                                \
            else                                                                                  \
                _vyr_log((level), __VA_ARGS__);                                                   \
        }                                                                                         \
    } while (0)

#define VYR_ERROR(...) VYR_LOG(VYR_LOG_LEVEL_ERROR, __VA_ARGS__)
#define VYR_WARN(...) VYR_LOG(VYR_LOG_LEVEL_WARNING, __VA_ARGS__)
#define VYR_INFO(...) VYR_LOG(VYR_LOG_LEVEL_INFO, __VA_ARGS__)
#define VYR_DEBUG(...) VYR_LOG(VYR_LOG_LEVEL_DEBUG, __VA_ARGS__)

#ifdef __cplusplus
}
#endif

#endif

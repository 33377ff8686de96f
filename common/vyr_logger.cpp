#include "vyr_logger.h"

#include <ctype.h>
#include <stdarg.h>
#include <stdlib.h>
#include <string.h>
#include <syslog.h>
#include <time.h>

#include <atomic>

#include "vyr_env.h"

extern "C" {

int vyr_log_level = -1;

// One instance per loaded image; a plug-in adopts its host's through a context.
// Atomics of the plain variables' size: any thread may log while a host
// switches its logger, and a reader must never see a torn value.
static std::atomic<uint32_t> g_kind{VYR_LOGGER_STDERR};
static std::atomic<FILE *> g_stream{NULL};
static std::atomic<vyr_log_func_t> g_func{NULL};
static std::atomic<pthread_mutex_t *> g_mutex{NULL};
static pthread_mutex_t g_image_mutex;
static std::atomic<bool> g_is_registered{false};
static inline int level_get(void) {
    return __atomic_load_n(&vyr_log_level, __ATOMIC_RELAXED);
}
static inline void level_set(int level) {
    __atomic_store_n(&vyr_log_level, level, __ATOMIC_RELAXED);
}

static bool g_exit_handler_set = false;

void vyr_logger_cleanup_mutex_exit_handler(void);

int vyr_set_log_level(int level) {
    int previous = level_get();
    level_set(level);
    return previous;
}

void vyr_set_log_func(vyr_log_func_t func, int level) {
    level_set(level);
    g_func = func;
    g_kind = VYR_LOGGER_FUNC;
}

vyr_log_func_t vyr_get_log_func(void) {
    return g_func;
}

vyr_logger_ctx_t *vyr_get_logger_ctx(void) {
    vyr_logger_ctx_t *ctx = (vyr_logger_ctx_t *)calloc(1, sizeof *ctx);
    if (!ctx) return NULL;
    ctx->kind = g_kind;
    ctx->level = level_get();
    ctx->mutex = g_mutex;
    if (g_kind == VYR_LOGGER_STDERR || g_kind == VYR_LOGGER_FILE)
        ctx->stream = g_stream;
    else if (g_kind == VYR_LOGGER_FUNC)
        ctx->log_func = g_func;
    return ctx;
}

void vyr_destroy_logger_ctx(vyr_logger_ctx_t *ctx) {
    free(ctx);
}

int _vyr_register_logger(vyr_logger_ctx_t *ctx) {
    if (!ctx) return 0;
    if (ctx->kind == g_kind && ctx->level == level_get() && ctx->mutex == g_mutex &&
        ctx->log_func == g_func && ctx->stream == g_stream)
        return 1;
    g_mutex = ctx->mutex;
    level_set(ctx->level);
    g_is_registered = true;
    g_kind = ctx->kind;
    if (g_kind == VYR_LOGGER_FUNC)
        g_func = ctx->log_func;
    else if (g_kind == VYR_LOGGER_STDERR || g_kind == VYR_LOGGER_FILE)
        g_stream = ctx->stream;
    return 1;
}

void vyr_logger_cleanup_mutex_exit_handler(void) {
    // An adopted mutex belongs to the image that made it.
    if (g_is_registered) return;
    if (g_mutex) {
        pthread_mutex_destroy(g_mutex);
        g_mutex = NULL;
    }
}

static int _vyr_init_logger_mutex(void) {
    const char *safe = vyr_getenv("VYR_LOG_THREAD_SAFE");
    if (safe && safe[0]) {
        int c = tolower((unsigned char)safe[0]);
        if (c != '1' && c != 't' && c != 'y') {
            VYR_DEBUG(
                "[logger] [%s] Thread safety is disabled by environment variable "
                "VYR_LOG_THREAD_SAFE",
                "_vyr_init_logger_mutex");
            return 0;
        }
    }
    if (g_is_registered || g_mutex) return 1;
    g_mutex = &g_image_mutex;
    if (pthread_mutex_init(g_mutex, NULL) != 0) {
        g_mutex = NULL;
        VYR_ERROR("[logger] [%s] failed to initialize logger mutex", "_vyr_init_logger_mutex");
        return 0;
    }
    if (!g_exit_handler_set) {
        g_exit_handler_set = true;
        atexit(vyr_logger_cleanup_mutex_exit_handler);
    }
    return 1;
}

// An adopted logger belongs to the host: its sink is not ours to replace.
static bool refused_as_registered(const char *fn) {
    if (!g_is_registered) return false;
    VYR_DEBUG("[logger] [%s] registered logger cannot initialize logger", fn);
    return true;
}

static void finish_init(const char *fn, vyr_logger_kind_t kind, int level) {
    level_set(level);
    g_kind = kind;
    if (!_vyr_init_logger_mutex())
        VYR_DEBUG("[logger] [%s] Initialized logger without thread-safety", fn);
}

int vyr_init_stderr_logger(int level) {
    if (refused_as_registered("vyr_init_stderr_logger")) return 0;
    g_stream = stderr;
    finish_init("vyr_init_stderr_logger", VYR_LOGGER_STDERR, level);
    return 1;
}

int vyr_init_file_logger(const char *path, int level) {
    if (refused_as_registered("vyr_init_file_logger")) return 0;
    vyr_close_logger();
    FILE *f = path ? fopen(path, "w") : NULL;
    if (!f) {
        vyr_init_stderr_logger(level);
        return 0;
    }
    g_stream = f;
    finish_init("vyr_init_file_logger", VYR_LOGGER_FILE, level);
    return 1;
}

int vyr_init_syslog_logger(const char *identity, int level) {
    if (refused_as_registered("vyr_init_syslog_logger")) return 0;
    // A log file opened before stays open, unlike with the file logger.
    openlog(identity, LOG_PID | LOG_CONS, LOG_DAEMON);
    finish_init("vyr_init_syslog_logger", VYR_LOGGER_SYSLOG, level);
    return 1;
}

void vyr_close_logger(void) {
    if (g_is_registered) {
        VYR_DEBUG("[logger] [%s] tried closing a registered logger, skipping closure",
                  "vyr_close_logger");
        return;
    }
    if (g_kind == VYR_LOGGER_SYSLOG) {
        closelog();
    } else if (g_kind == VYR_LOGGER_FILE && g_stream) {
        fclose(g_stream);
        g_stream = NULL;
    }
    vyr_init_stderr_logger(level_get());
}

void __vyr_init_logger_default(void) {
    // An adopted context that never set its level would make every message
    // retry (and refuse) initialisation: treat it as level 0.
    if (g_is_registered) {
        if (level_get() == -1) level_set(0);
        return;
    }
    int level = 0;
    const char *text = vyr_getenv("VYR_API_LOG_LEVEL");
    if (!text || sscanf(text, "%d", &level) != 1) level = 0;
    vyr_init_stderr_logger(level);
}

void vyr_dump_timestamp_logger(FILE *stream) {
    if (!stream) return;
    struct timespec ts;
    clock_gettime(CLOCK_REALTIME, &ts);
    time_t seconds = ts.tv_sec;
    long millis = ts.tv_nsec / 1000000;
    if (millis > 999) {
        millis -= 1000;
        seconds += 1;
    }
    struct tm tm;
    localtime_r(&seconds, &tm);
    char text[26];
    strftime(text, sizeof text, "[%Y-%m-%d %H:%M:%S", &tm);
    fprintf(stream, "%s.%03d] ", text, (int)millis);
}

const char *vyr_priority_level_string_logger(int level) {
    switch (level) {
        case VYR_LOG_LEVEL_ERROR:
            return "[error] ";
        case VYR_LOG_LEVEL_WARNING:
            return "[warning] ";
        case VYR_LOG_LEVEL_INFO:
            return "[info] ";
        case VYR_LOG_LEVEL_DEBUG:
            return "[debug] ";
        default:
            return "";
    }
}

void _vyr_log(int level, const char *format, ...) {
    va_list ap;
    va_start(ap, format);
    if (g_kind == VYR_LOGGER_SYSLOG) {
        vsyslog(level, format, ap);
        va_end(ap);
        return;
    }
    if (!g_stream) vyr_init_stderr_logger(level_get());
    // An adopted logger refuses that initialisation and may still have no stream.
    FILE *stream = g_stream.load();
    if (!stream) stream = stderr;
    pthread_mutex_t *mutex = g_mutex;
    if (mutex) pthread_mutex_lock(mutex);
    vyr_dump_timestamp_logger(stream);
    fputs(vyr_priority_level_string_logger(level), stream);
    vfprintf(stream, format, ap);
    fputc('\n', stream);
    fflush(stream);
    if (mutex) pthread_mutex_unlock(mutex);
    va_end(ap);
}

void log_hex(const void *data, size_t length) {
    if (level_get() == -1) __vyr_init_logger_default();
    if ((unsigned)level_get() < VYR_LOG_LEVEL_DEBUG || length == 0 || !data) return;
    const unsigned char *bytes = (const unsigned char *)data;
    char line[100];
    char chars[17];
    size_t used = 0;
    size_t n = 0;  // bytes on the current line
    for (size_t i = 0; i < length; ++i) {
        used += (size_t)snprintf(line + used, sizeof line - used, "%02X ", bytes[i]);
        chars[n++] = (bytes[i] >= 0x20 && bytes[i] <= 0x7E) ? (char)bytes[i] : '.';
        if ((i + 1) % 8 == 0 || i + 1 == length) line[used++] = ' ';
        if (n == 16) {
            chars[16] = '\0';
            snprintf(line + used, sizeof line - used, "|  %s ", chars);
            VYR_DEBUG("%s", line);
            used = 0;
            n = 0;
        }
    }
    if (n > 0) {
        chars[n] = '\0';
        // A short line keeps its "|" column aligned with the full lines above.
        if (n < 9) line[used++] = ' ';
        for (size_t k = n; k < 16; ++k) {
            memcpy(line + used, "   ", 3);
            used += 3;
        }
        snprintf(line + used, sizeof line - used, "|  %s ", chars);
        VYR_DEBUG("%s", line);
    }
}

}  // extern "C"

// The process-wide logger: line format, level gating, default initialisation
// from the environment, the lock switch, adopted contexts and the hex dump.
#include <fcntl.h>
#include <gtest/gtest.h>
#include <pthread.h>
#include <sys/syscall.h>
#include <unistd.h>

#include <atomic>
#include <cstdarg>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <ctime>
#include <functional>
#include <sstream>
#include <string>
#include <vector>

#include "log_capture.h"
#include "test_paths.h"
#include "vyr_logger.h"

// The wall clock the logger reads, pinned by a test or passed through.
static std::atomic<bool> g_clock_pinned{false};
static struct timespec g_clock_pin;

extern "C" int clock_gettime(clockid_t clock, struct timespec *ts) noexcept {
    if (clock == CLOCK_REALTIME && g_clock_pinned.load()) {
        *ts = g_clock_pin;
        return 0;
    }
    return static_cast<int>(syscall(SYS_clock_gettime, clock, ts));
}

namespace {

using vyrtest::LogCapture;
using vyrtest::LogLine;

struct PinnedClock {
    PinnedClock(time_t sec, long nsec) {
        g_clock_pin.tv_sec = sec;
        g_clock_pin.tv_nsec = nsec;
        g_clock_pinned = true;
    }
    ~PinnedClock() { g_clock_pinned = false; }
};

const char kNoThreadSafeValue[] =
    "[vyr_getenv] No value for 'VYR_LOG_THREAD_SAFE' or 'LOG_THREAD_SAFE'";
const char *const kEnvNames[] = {"VYR_API_LOG_LEVEL", "API_LOG_LEVEL", "VYR_LOG_THREAD_SAFE",
                                 "LOG_THREAD_SAFE", "TZ"};

// "[YYYY-MM-DD HH:MM:SS.mmm] ": '0' stands for a digit.
const char kStampShape[] = "[0000-00-00 00:00:00.000] ";
const size_t kStampLength = sizeof kStampShape - 1;

bool starts_with_stamp(const std::string &line) {
    if (line.size() < kStampLength) return false;
    for (size_t i = 0; i < kStampLength; ++i) {
        bool digit = line[i] >= '0' && line[i] <= '9';
        if (kStampShape[i] == '0' ? !digit : line[i] != kStampShape[i]) return false;
    }
    return true;
}

// Splits a log file into lines with their timestamps removed; a line without
// a well-formed stamp, or text after the last newline, shows up as "<bad> ...".
std::vector<std::string> unstamped_lines(const std::string &content) {
    std::vector<std::string> out;
    size_t start = 0;
    while (start < content.size()) {
        size_t nl = content.find('\n', start);
        if (nl == std::string::npos) {
            out.push_back("<bad> unterminated: " + content.substr(start));
            break;
        }
        std::string line = content.substr(start, nl - start);
        out.push_back(starts_with_stamp(line) ? line.substr(kStampLength) : "<bad> " + line);
        start = nl + 1;
    }
    return out;
}

std::vector<std::string> texts(const std::vector<LogLine> &lines, int level = -1) {
    std::vector<std::string> out;
    for (const auto &l : lines)
        if (level < 0 || l.level == level) out.push_back(l.text);
    return out;
}

struct TempFile {
    std::string path;
    TempFile() {
        char buf[] = "/tmp/vyr_logger_test_XXXXXX";
        int fd = mkstemp(buf);
        if (fd >= 0) close(fd);
        path = buf;
    }
    ~TempFile() { unlink(path.c_str()); }
    std::string read() const { return vyrtest::read_file(path); }
};

// Points fd 2 at a file for the lifetime of the object.
struct StderrToFile {
    TempFile file;
    int saved;
    StderrToFile() {
        fflush(stderr);
        saved = dup(2);
        int fd = open(file.path.c_str(), O_WRONLY | O_TRUNC);
        dup2(fd, 2);
        close(fd);
    }
    ~StderrToFile() {
        fflush(stderr);
        dup2(saved, 2);
        close(saved);
    }
    std::string read() const { return file.read(); }
};

// Collects mismatches inside a child process, which cannot report through gtest.
struct Failures {
    std::string text;
    template <class A, class B>
    void eq(const A &got, const B &want, const char *what) {
        if (!(got == want)) {
            std::ostringstream o;
            o << what << ": got [" << got << "] want [" << want << "]\n";
            text += o.str();
        }
    }
    void ok(bool cond, const char *what) {
        if (!cond) text += std::string(what) + "\n";
    }
    void lines(const std::vector<std::string> &got, const std::vector<std::string> &want,
               const char *what) {
        if (got == want) return;
        text += std::string(what) + ": lines differ; got:\n";
        for (const auto &g : got) text += "  " + g + "\n";
        text += "want:\n";
        for (const auto &w : want) text += "  " + w + "\n";
    }
    // Ends the child: status 0 only when nothing was recorded.
    [[noreturn]] void exit() {
        if (!text.empty()) fputs(text.c_str(), stderr);
        fflush(stderr);
        _exit(text.empty() ? 0 : 1);
    }
};

const void *fp(vyr_log_func_t f) {
    return reinterpret_cast<const void *>(f);
}

void other_log_func(int, const char *, ...) {}

class LoggerTest : public ::testing::Test {
  protected:
    void SetUp() override {
        // Children re-execute the test binary so that they start from a
        // logger that never ran (the lock, once made, stays for the process).
        GTEST_FLAG_SET(death_test_style, "threadsafe");
        for (const char *name : kEnvNames) {
            const char *v = getenv(name);
            saved_.push_back({name, v != nullptr, v ? v : ""});
            unsetenv(name);
        }
    }
    void TearDown() override {
        vyr_set_log_level(0);
        vyr_close_logger();  // closes a file logger left open by a test
        vyr_set_log_func(nullptr, 0);
        vyr_init_stderr_logger(0);
        for (const auto &s : saved_) {
            if (s.set)
                setenv(s.name, s.value.c_str(), 1);
            else
                unsetenv(s.name);
        }
        tzset();
    }

  private:
    struct Saved {
        const char *name;
        bool set;
        std::string value;
    };
    std::vector<Saved> saved_;
};

// Runs `body` in a fresh process; it reports through the Failures it is given.
#define EXPECT_IN_CHILD(body) \
    EXPECT_EXIT(              \
        {                     \
            Failures f_;      \
            (body)(f_);       \
            f_.exit();        \
        },                    \
        ::testing::ExitedWithCode(0), "")

TEST_F(LoggerTest, LevelPrefixes) {
    const struct {
        int level;
        const char *prefix;
    } cases[] = {{3, "[error] "}, {4, "[warning] "}, {5, ""},    {6, "[info] "},
                 {7, "[debug] "}, {0, ""},           {1, ""},    {2, ""},
                 {8, ""},         {-1, ""},          {0x103, ""}};
    for (const auto &c : cases)
        EXPECT_STREQ(vyr_priority_level_string_logger(c.level), c.prefix) << c.level;
}

// Every line is "[date time.mmm] ", the level's prefix, the message and a
// newline, flushed at once: the file is read while the logger still holds it.
TEST_F(LoggerTest, FileLoggerLineFormatAndFlush) {
    TempFile file;
    vyrtest::write_file(file.path, "stale content\n");
    ASSERT_EQ(vyr_init_file_logger(file.path.c_str(), 7), 1);

    // The lock set-up looks up its switch and says so in the new file.
    std::string content = file.read();
    ASSERT_EQ(unstamped_lines(content),
              std::vector<std::string>{"[debug] " + std::string(kNoThreadSafeValue)})
        << content;

    const struct {
        int level;
        bool direct;  // through _vyr_log, which does not gate
        const char *prefix;
    } cases[] = {
        {3, false, "[error] "}, {4, false, "[warning] "}, {5, false, ""}, {6, false, "[info] "},
        {7, false, "[debug] "}, {1, false, ""},           {0, false, ""}, {8, true, ""},
        {42, true, ""}};
    for (const auto &c : cases) {
        size_t before = content.size();
        if (c.direct)
            _vyr_log(c.level, "message %d at %s", c.level, "level");
        else
            VYR_LOG(c.level, "message %d at %s", c.level, "level");
        content = file.read();
        std::string added = content.substr(before);
        std::string want =
            std::string(c.prefix) + "message " + std::to_string(c.level) + " at level";
        EXPECT_EQ(unstamped_lines(added), std::vector<std::string>{want})
            << "level " << c.level << ": [" << added << "]";
    }

    // A message above the configured level never reaches the file.
    size_t before = content.size();
    VYR_LOG(8, "gated");
    EXPECT_EQ(file.read().size(), before);

    // Closing leaves a stderr logger at the same level.
    std::string err_content;
    {
        StderrToFile err;
        vyr_close_logger();
        err_content = err.read();
    }
    EXPECT_EQ(unstamped_lines(err_content),
              std::vector<std::string>{"[debug] " + std::string(kNoThreadSafeValue)});
    vyr_logger_ctx_t *ctx = vyr_get_logger_ctx();
    ASSERT_NE(ctx, nullptr);
    EXPECT_EQ(ctx->kind, (uint32_t)VYR_LOGGER_STDERR);
    EXPECT_EQ(ctx->stream, stderr);
    EXPECT_EQ(ctx->level, 7);
    vyr_destroy_logger_ctx(ctx);
}

// Stamps are local time with zero-padded milliseconds; the clock is pinned.
TEST_F(LoggerTest, TimestampFromPinnedClock) {
    const struct {
        const char *tz;
        time_t sec;
        long nsec;
        const char *stamp;
    } cases[] = {
        {"UTC0", 1714564807, 42000000, "[2024-05-01 12:00:07.042] "},
        {"UTC0", 1714564807, 7999999, "[2024-05-01 12:00:07.007] "},
        {"UTC0", 1714564807, 0, "[2024-05-01 12:00:07.000] "},
        {"UTC0", 1714564807, 999999999, "[2024-05-01 12:00:07.999] "},
        {"UTC0", 1714564807, 100000000, "[2024-05-01 12:00:07.100] "},
        // A zone away from UTC, without daylight saving and without tzdata.
        {"XYZ-5:30", 1714564807, 500000000, "[2024-05-01 17:30:07.500] "},
        {"XYZ-5:30", 1704067199, 1000000, "[2024-01-01 05:29:59.001] "},
    };
    for (const auto &c : cases) {
        setenv("TZ", c.tz, 1);
        tzset();
        PinnedClock pin(c.sec, c.nsec);
        char *buf = nullptr;
        size_t size = 0;
        FILE *mem = open_memstream(&buf, &size);
        ASSERT_NE(mem, nullptr);
        vyr_dump_timestamp_logger(mem);
        fclose(mem);
        EXPECT_EQ(std::string(buf, size), c.stamp);
        free(buf);
    }

    // One whole line, byte for byte.
    setenv("TZ", "UTC0", 1);
    tzset();
    TempFile file;
    ASSERT_EQ(vyr_init_file_logger(file.path.c_str(), 4), 1);
    {
        PinnedClock pin(1714564807, 42000000);
        VYR_WARN("[%s] rest of the message", "vyr_getenv");
    }
    EXPECT_EQ(file.read(),
              "[2024-05-01 12:00:07.042] [warning] [vyr_getenv] rest of the message\n");
}

TEST_F(LoggerTest, UnopenableFileFallsBackToStderrSilently) {
    LogCapture cap(7);
    std::string path = "/nonexistent_vyr_dir/sub/log.txt";
    EXPECT_EQ(vyr_init_file_logger(path.c_str(), 6), 0);
    vyr_logger_ctx_t *ctx = vyr_get_logger_ctx();
    ASSERT_NE(ctx, nullptr);
    EXPECT_EQ(ctx->kind, (uint32_t)VYR_LOGGER_STDERR);
    EXPECT_EQ(ctx->stream, stderr);
    EXPECT_EQ(ctx->level, 6);
    vyr_destroy_logger_ctx(ctx);
    // Only the lock switch lookup of the interim stderr logger; nothing about the file.
    EXPECT_EQ(texts(cap.lines()), std::vector<std::string>{kNoThreadSafeValue}) << cap.dump();
}

// Gating compares unsigned: a negative level opens everything, a negative
// message level is above any ordinary configured level.
TEST_F(LoggerTest, LevelGating) {
    const struct {
        int configured;
        std::vector<int> emitted;
    } cases[] = {
        {0, {0}},
        {3, {3, 0}},
        {4, {3, 4, 0}},
        {5, {3, 4, 5, 0}},
        {6, {3, 4, 5, 6, 0}},
        {7, {3, 4, 5, 6, 7, 0}},
        {-2, {3, 4, 5, 6, 7, 0, -5}},
    };
    for (const auto &c : cases) {
        LogCapture cap(c.configured);
        for (int level : {3, 4, 5, 6, 7, 0, -5}) VYR_LOG(level, "at %d", level);
        std::vector<int> got;
        for (const auto &l : cap.lines()) {
            EXPECT_EQ(l.text, "at " + std::to_string(l.level));
            got.push_back(l.level);
        }
        EXPECT_EQ(got, c.emitted) << "configured " << c.configured;
    }

    // A gated message's arguments are never evaluated.
    LogCapture cap(3);
    int evaluated = 0;
    VYR_DEBUG("%d", ++evaluated);
    EXPECT_EQ(evaluated, 0);
}

// The first message initialises a stderr logger from VYR_API_LOG_LEVEL (or
// its plain spelling); anything "%d" cannot read means level 0.
TEST_F(LoggerTest, DefaultInitialisationFromEnvironment) {
    const char *unset = nullptr;
    const std::vector<std::string> all = {"[debug] " + std::string(kNoThreadSafeValue),
                                          "[error] m3",
                                          "[warning] m4",
                                          "m5",
                                          "[info] m6",
                                          "[debug] m7"};
    const struct {
        const char *prefixed;
        const char *plain;
        int level;
        std::vector<std::string> lines;
    } cases[] = {
        {unset, unset, 0, {}},
        {"7", unset, 7, all},
        {"abc", unset, 0, {}},
        {"", unset, 0, {}},
        {unset, "7", 7, all},
        {"5 apples", unset, 5, {"[error] m3", "[warning] m4", "m5"}},
        // The prefixed spelling wins, and this lookup never warns about it.
        {"4", "7", 4, {"[error] m3", "[warning] m4"}},
        {"abc", "7", 0, {}},
    };
    for (const auto &c : cases) {
        std::string label = std::string(c.prefixed ? c.prefixed : "<unset>") + " / " +
                            (c.plain ? c.plain : "<unset>");
        if (c.prefixed)
            setenv("VYR_API_LOG_LEVEL", c.prefixed, 1);
        else
            unsetenv("VYR_API_LOG_LEVEL");
        if (c.plain)
            setenv("API_LOG_LEVEL", c.plain, 1);
        else
            unsetenv("API_LOG_LEVEL");
        vyr_set_log_func(nullptr, 0);
        vyr_log_level = -1;
        std::string content;
        {
            StderrToFile err;
            VYR_ERROR("m%d", 3);
            VYR_WARN("m%d", 4);
            VYR_LOG(5, "m%d", 5);
            VYR_INFO("m%d", 6);
            VYR_DEBUG("m%d", 7);
            content = err.read();
        }
        EXPECT_EQ(vyr_log_level, c.level) << label;
        EXPECT_EQ(unstamped_lines(content), c.lines) << label;

        // The same through an explicit call.
        vyr_log_level = -1;
        {
            StderrToFile err;
            __vyr_init_logger_default();
        }
        EXPECT_EQ(vyr_log_level, c.level) << label;
    }
}

TEST_F(LoggerTest, ContextContentsPerKind) {
    vyr_set_log_func(nullptr, 0);
    ASSERT_EQ(vyr_init_stderr_logger(6), 1);
    vyr_logger_ctx_t *ctx = vyr_get_logger_ctx();
    ASSERT_NE(ctx, nullptr);
    EXPECT_EQ(ctx->kind, (uint32_t)VYR_LOGGER_STDERR);
    EXPECT_EQ(ctx->stream, stderr);
    EXPECT_EQ(fp(ctx->log_func), nullptr);
    EXPECT_EQ(ctx->level, 6);
    EXPECT_NE(ctx->mutex, nullptr);  // the lock is on by default
    pthread_mutex_t *lock = ctx->mutex;
    vyr_destroy_logger_ctx(ctx);

    TempFile file;
    ASSERT_EQ(vyr_init_file_logger(file.path.c_str(), 4), 1);
    ctx = vyr_get_logger_ctx();
    ASSERT_NE(ctx, nullptr);
    EXPECT_EQ(ctx->kind, (uint32_t)VYR_LOGGER_FILE);
    EXPECT_NE(ctx->stream, nullptr);
    EXPECT_NE(ctx->stream, stderr);
    EXPECT_EQ(fp(ctx->log_func), nullptr);
    EXPECT_EQ(ctx->level, 4);
    EXPECT_EQ(ctx->mutex, lock);  // made once per image
    vyr_destroy_logger_ctx(ctx);
    vyr_close_logger();

    {
        // A registered function takes the lock set-up's messages instead of syslog.
        LogCapture cap(7);
        ASSERT_EQ(vyr_init_syslog_logger("vyr_logger_test", 5), 1);
        ctx = vyr_get_logger_ctx();
        ASSERT_NE(ctx, nullptr);
        EXPECT_EQ(ctx->kind, (uint32_t)VYR_LOGGER_SYSLOG);
        EXPECT_EQ(ctx->stream, nullptr);
        EXPECT_EQ(fp(ctx->log_func), nullptr);  // stored, but not carried by kind 1
        EXPECT_EQ(ctx->level, 5);
        EXPECT_EQ(ctx->mutex, lock);
        vyr_destroy_logger_ctx(ctx);
        vyr_close_logger();
        ctx = vyr_get_logger_ctx();
        ASSERT_NE(ctx, nullptr);
        EXPECT_EQ(ctx->kind, (uint32_t)VYR_LOGGER_STDERR);
        EXPECT_EQ(ctx->stream, stderr);
        EXPECT_EQ(ctx->level, 5);
        vyr_destroy_logger_ctx(ctx);
    }

    vyr_set_log_func(other_log_func, 3);
    EXPECT_EQ(fp(vyr_get_log_func()), fp(other_log_func));
    ctx = vyr_get_logger_ctx();
    ASSERT_NE(ctx, nullptr);
    EXPECT_EQ(ctx->kind, (uint32_t)VYR_LOGGER_FUNC);
    EXPECT_EQ(ctx->stream, nullptr);
    EXPECT_EQ(fp(ctx->log_func), fp(other_log_func));
    EXPECT_EQ(ctx->level, 3);
    vyr_destroy_logger_ctx(ctx);
    vyr_destroy_logger_ctx(nullptr);

    EXPECT_EQ(vyr_set_log_level(2), 3);
    EXPECT_EQ(vyr_log_level, 2);
    EXPECT_EQ(fp(vyr_get_log_func()), fp(other_log_func));  // the level only
}

TEST_F(LoggerTest, RegisterNullIsRefused) {
    vyr_init_stderr_logger(6);
    EXPECT_EQ(_vyr_register_logger(nullptr), 0);
    // Still our own logger: initialisation is not refused.
    EXPECT_EQ(vyr_init_stderr_logger(5), 1);
    EXPECT_EQ(vyr_log_level, 5);
}

TEST_F(LoggerTest, RegisteringOwnContextChangesNothing) {
    EXPECT_IN_CHILD([](Failures &f) {
        vyr_set_log_func(nullptr, 0);
        vyr_init_stderr_logger(6);
        vyr_logger_ctx_t *ctx = vyr_get_logger_ctx();
        f.eq(_vyr_register_logger(ctx), 1, "register own context");
        f.eq(_vyr_register_logger(ctx), 1, "register own context again");
        vyr_destroy_logger_ctx(ctx);
        LogCapture cap(7);
        f.eq(vyr_init_stderr_logger(7), 1, "stderr logger after own context");
        f.ok(!cap.contains_fragment("registered logger"), "no refusal");
    });
}

// A context differing in any one field is adopted; from then on the image
// may no longer initialise its own logger.
TEST_F(LoggerTest, ContextDifferingInOneFieldIsAdopted) {
    static pthread_mutex_t foreign = PTHREAD_MUTEX_INITIALIZER;
    const std::vector<std::function<void(vyr_logger_ctx_t &)>> changes = {
        [](vyr_logger_ctx_t &c) { c.level = 3; },
        [](vyr_logger_ctx_t &c) { c.mutex = &foreign; },
        [](vyr_logger_ctx_t &c) { c.stream = stdout; },
        [](vyr_logger_ctx_t &c) { c.log_func = other_log_func; },
        [](vyr_logger_ctx_t &c) { c.kind = VYR_LOGGER_SYSLOG; },
    };
    for (size_t i = 0; i < changes.size(); ++i) {
        SCOPED_TRACE(i);
        EXPECT_IN_CHILD([&](Failures &f) {
            vyr_set_log_func(nullptr, 0);
            vyr_init_stderr_logger(6);
            vyr_logger_ctx_t *ctx = vyr_get_logger_ctx();
            changes[i](*ctx);
            f.eq(_vyr_register_logger(ctx), 1, "register");
            vyr_logger_ctx_t want = *ctx;
            vyr_destroy_logger_ctx(ctx);
            f.eq(vyr_log_level, want.level, "adopted level");
            // kind 0 carries the stream but never the function; kind 1 neither.
            f.eq(fp(vyr_get_log_func()), (const void *)nullptr, "function not adopted");
            vyr_logger_ctx_t *now = vyr_get_logger_ctx();
            f.eq(now->kind, want.kind, "adopted kind");
            f.eq((void *)now->mutex, (void *)want.mutex, "adopted mutex");
            if (want.kind == VYR_LOGGER_STDERR)
                f.eq((void *)now->stream, (void *)want.stream, "adopted stream");
            vyr_destroy_logger_ctx(now);
            int level = vyr_log_level;
            f.eq(vyr_init_stderr_logger(7), 0, "refused after adoption");
            f.eq(vyr_log_level, level, "level untouched by the refusal");
        });
    }
}

TEST_F(LoggerTest, AdoptedLoggerRefusesInitAndClose) {
    EXPECT_IN_CHILD([](Failures &f) {
        static pthread_mutex_t foreign = PTHREAD_MUTEX_INITIALIZER;
        LogCapture cap(7);  // its function plays the host's sink
        vyr_logger_ctx_t *ctx = vyr_get_logger_ctx();
        vyr_log_func_t host_func = ctx->log_func;
        ctx->level = 7;
        ctx->mutex = &foreign;
        vyr_set_log_func(nullptr, 0);
        vyr_init_stderr_logger(0);
        f.eq(_vyr_register_logger(ctx), 1, "register");
        vyr_destroy_logger_ctx(ctx);
        f.eq(fp(vyr_get_log_func()), fp(host_func), "adopted function");
        cap.clear();

        TempFile dir_holder;  // a path that must not come into being
        std::string path = dir_holder.path + ".log";
        f.eq(vyr_init_stderr_logger(3), 0, "stderr logger refused");
        f.eq(vyr_init_file_logger(path.c_str(), 3), 0, "file logger refused");
        f.eq(vyr_init_syslog_logger("vyr_logger_test", 3), 0, "syslog logger refused");
        vyr_close_logger();
        f.ok(access(path.c_str(), F_OK) != 0, "refused file logger created no file");
        f.lines(texts(cap.lines(), 7),
                {"[logger] [vyr_init_stderr_logger] registered logger cannot initialize logger",
                 "[logger] [vyr_init_file_logger] registered logger cannot initialize logger",
                 "[logger] [vyr_init_syslog_logger] registered logger cannot initialize logger",
                 "[logger] [vyr_close_logger] tried closing a registered logger, skipping "
                 "closure"},
                "refusal messages");
        f.eq(cap.lines().size(), (size_t)4, "nothing but the refusals");

        vyr_logger_ctx_t *now = vyr_get_logger_ctx();
        f.eq(now->kind, (uint32_t)VYR_LOGGER_FUNC, "kind kept");
        f.eq(now->level, 7, "level kept");
        f.eq((void *)now->mutex, (void *)&foreign, "mutex kept");
        vyr_destroy_logger_ctx(now);
    });
}

// Contexts a careless host may hand over: no stream, or a level never set.
TEST_F(LoggerTest, AdoptedContextWithoutStreamOrLevelIsSurvived) {
    EXPECT_IN_CHILD([](Failures &f) {
        vyr_logger_ctx_t *ctx = (vyr_logger_ctx_t *)calloc(1, sizeof *ctx);
        ctx->kind = VYR_LOGGER_STDERR;  // but no stream
        ctx->level = -1;
        vyr_set_log_func(nullptr, 0);
        vyr_init_stderr_logger(0);
        f.eq(_vyr_register_logger(ctx), 1, "register");
        VYR_WARN("unset level emits nothing");  // must not recurse
        f.eq(vyr_log_level, 0, "unset adopted level reads as 0");
        ctx->level = 4;
        ctx->mutex = nullptr;
        f.eq(_vyr_register_logger(ctx), 1, "register again");
        vyr_destroy_logger_ctx(ctx);
        VYR_WARN("falls back to standard error");  // no stream: must not crash
        f.ok(true, "survived");
    });
}

// An adopted stream context writes through the host's stream at the host's level.
TEST_F(LoggerTest, AdoptedStreamReceivesLines) {
    EXPECT_IN_CHILD([](Failures &f) {
        static pthread_mutex_t foreign = PTHREAD_MUTEX_INITIALIZER;
        TempFile file;
        FILE *host_stream = fopen(file.path.c_str(), "w");
        vyr_logger_ctx_t *ctx = (vyr_logger_ctx_t *)calloc(1, sizeof *ctx);
        ctx->kind = VYR_LOGGER_FILE;
        ctx->stream = host_stream;
        ctx->level = 4;
        ctx->mutex = &foreign;
        vyr_set_log_func(nullptr, 0);
        vyr_init_stderr_logger(0);
        f.eq(_vyr_register_logger(ctx), 1, "register");
        vyr_destroy_logger_ctx(ctx);
        VYR_WARN("[%s] adopted %d", "plugin", 1);
        VYR_INFO("gated");
        f.lines(unstamped_lines(file.read()), {"[warning] [plugin] adopted 1"}, "host file");
        // The lock is the host's and must be free again after the line.
        f.eq(pthread_mutex_trylock(&foreign), 0, "host lock released");
        fclose(host_stream);
    });
}

// The lock is on unless VYR_LOG_THREAD_SAFE (or its plain spelling) starts
// with something other than 1, t or y.
TEST_F(LoggerTest, ThreadSafetySwitch) {
    const std::string disabled =
        "[logger] [_vyr_init_logger_mutex] Thread safety is disabled by environment "
        "variable VYR_LOG_THREAD_SAFE";
    const std::string without =
        "[logger] [vyr_init_stderr_logger] Initialized logger without thread-safety";
    const struct {
        const char *name;
        const char *value;
        bool locked;
        std::vector<std::string> lines;
    } cases[] = {
        {"VYR_LOG_THREAD_SAFE",
         "no",
         false,
         {"[vyr_getenv] Using 'VYR_LOG_THREAD_SAFE'='no'", disabled, without}},
        {"VYR_LOG_THREAD_SAFE",
         "0",
         false,
         {"[vyr_getenv] Using 'VYR_LOG_THREAD_SAFE'='0'", disabled, without}},
        {"VYR_LOG_THREAD_SAFE",
         "false",
         false,
         {"[vyr_getenv] Using 'VYR_LOG_THREAD_SAFE'='false'", disabled, without}},
        {"LOG_THREAD_SAFE",
         "off",
         false,
         {"[vyr_getenv] Using 'LOG_THREAD_SAFE'='off'", disabled, without}},
        {"VYR_LOG_THREAD_SAFE", "Yes", true, {"[vyr_getenv] Using 'VYR_LOG_THREAD_SAFE'='Yes'"}},
        {"VYR_LOG_THREAD_SAFE", "TRUE", true, {"[vyr_getenv] Using 'VYR_LOG_THREAD_SAFE'='TRUE'"}},
        {"VYR_LOG_THREAD_SAFE", "1", true, {"[vyr_getenv] Using 'VYR_LOG_THREAD_SAFE'='1'"}},
        {"VYR_LOG_THREAD_SAFE", "", true, {"[vyr_getenv] Using 'VYR_LOG_THREAD_SAFE'=''"}},
        {nullptr, nullptr, true, {kNoThreadSafeValue}},
    };
    for (const auto &c : cases) {
        SCOPED_TRACE(c.value ? c.value : "<unset>");
        if (c.name) setenv(c.name, c.value, 1);
        EXPECT_IN_CHILD([&](Failures &f) {
            LogCapture cap(7);
            f.eq(vyr_init_stderr_logger(7), 1, "stderr logger");
            vyr_logger_ctx_t *ctx = vyr_get_logger_ctx();
            f.eq(ctx->mutex != nullptr, c.locked, "lock present");
            vyr_destroy_logger_ctx(ctx);
            f.lines(texts(cap.lines(), 7), c.lines, "debug lines");
            f.eq(cap.lines().size(), c.lines.size(), "all at debug level");
        });
        if (c.name) unsetenv(c.name);
    }
}

// The file and syslog loggers report a missing lock under their own names.
TEST_F(LoggerTest, ThreadSafetyOffNamesTheInitialiser) {
    setenv("VYR_LOG_THREAD_SAFE", "n", 1);
    EXPECT_IN_CHILD([](Failures &f) {
        LogCapture cap(7);
        TempFile file;
        f.eq(vyr_init_file_logger(file.path.c_str(), 7), 1, "file logger");
        f.ok(cap.contains(7,
                          "[logger] [vyr_init_file_logger] Initialized logger without "
                          "thread-safety"),
             "file logger names itself");
        vyr_close_logger();
        cap.clear();
        f.eq(vyr_init_syslog_logger("vyr_logger_test", 7), 1, "syslog logger");
        f.ok(cap.contains(7,
                          "[logger] [vyr_init_syslog_logger] Initialized logger without "
                          "thread-safety"),
             "syslog logger names itself");
        vyr_logger_ctx_t *ctx = vyr_get_logger_ctx();
        f.eq((void *)ctx->mutex, (void *)nullptr, "no lock");
        vyr_destroy_logger_ctx(ctx);
    });
}

TEST_F(LoggerTest, HexDump) {
    const unsigned char twenty[] = {0x00, 0x01, 0x41, 0x62, 0x7E, 0x7F, 0x20, 0x1F, 0x80, 0xFF,
                                    '0',  '1',  '2',  '3',  '4',  '5',  'x',  'y',  '\n', 'z'};
    const struct {
        std::string data;
        std::vector<std::string> lines;
    } cases[] = {
        {std::string(reinterpret_cast<const char *>(twenty), sizeof twenty),
         {"00 01 41 62 7E 7F 20 1F  80 FF 30 31 32 33 34 35  |  ..Ab~. ...012345 ",
          "78 79 0A 7A                                       |  xy.z "}},
        {"ABCDEFGH", {"41 42 43 44 45 46 47 48                           |  ABCDEFGH "}},
        {"ABCDEFGHI", {"41 42 43 44 45 46 47 48  49                       |  ABCDEFGHI "}},
        {"0123456789:;<=>?",
         {"30 31 32 33 34 35 36 37  38 39 3A 3B 3C 3D 3E 3F  |  0123456789:;<=>? "}},
        {"Z", {"5A                                                |  Z "}},
        {"0123456789:;<=>?ABCDEFGH",
         {"30 31 32 33 34 35 36 37  38 39 3A 3B 3C 3D 3E 3F  |  0123456789:;<=>? ",
          "41 42 43 44 45 46 47 48                           |  ABCDEFGH "}},
    };
    for (const auto &c : cases) {
        LogCapture cap(7);
        log_hex(c.data.data(), c.data.size());
        EXPECT_EQ(texts(cap.lines(), 7), c.lines) << cap.dump();
        EXPECT_EQ(cap.lines().size(), c.lines.size());
        for (const auto &l : cap.lines()) EXPECT_EQ(l.text.find('|'), 50u) << l.text;
    }

    LogCapture cap(7);
    log_hex("abc", 0);
    EXPECT_TRUE(cap.lines().empty());
    LogCapture info(6);
    log_hex("abc", 3);
    EXPECT_TRUE(info.lines().empty());
    LogCapture all(-2);  // unsigned, this level lets everything through
    log_hex("Z", 1);
    EXPECT_EQ(all.lines().size(), 1u);
}

// Through the default writer, the dump's lines are ordinary debug lines.
TEST_F(LoggerTest, HexDumpToFile) {
    TempFile file;
    ASSERT_EQ(vyr_init_file_logger(file.path.c_str(), 7), 1);
    size_t before = file.read().size();
    log_hex("hi", 2);
    EXPECT_EQ(unstamped_lines(file.read().substr(before)),
              std::vector<std::string>{"[debug] 68 69" + std::string(45, ' ') + "|  hi "});
}

}  // namespace

// The process-wide logger: line format, level gating, default initialisation
// from the environment, the lock switch, adopted contexts and the hex dump.
#include <fcntl.h>
#include <gtest/gtest.h>
#include <pthread.h>

#include <atomic>
#include <functional>
#include <regex>
#include <tuple>

#include "unit_helpers.h"
#include "vyr_logger.h"

namespace {

using vyrtest::LogCapture;
using vyrtest::unit::TempFile;
using vyrtest::unit::texts;
using Lines = std::vector<std::string>;

const std::string kNoLockSwitch =
    "[vyr_getenv] No value for 'VYR_LOG_THREAD_SAFE' or 'LOG_THREAD_SAFE'";
const std::string kNoLockSwitchLine = "[debug] " + kNoLockSwitch;

// The lines of a log text without their "[YYYY-MM-DD HH:MM:SS.mmm] " stamps; a
// line with a malformed stamp, or without its newline, reads "<bad> ...".
Lines unstamped(const std::string &content) {
    static const std::regex stamp(R"(\[\d{4}-\d\d-\d\d \d\d:\d\d:\d\d\.\d{3}\] (.*)\n)");
    Lines out;
    for (std::sregex_iterator it(content.begin(), content.end(), stamp), end; it != end; ++it)
        out.push_back(it->prefix().length() ? "<bad> " + it->prefix().str() : (*it)[1].str());
    return out;
}

// Points fd 2 at a temporary file for one scope.
struct StderrToFile : TempFile {
    int saved;
    StderrToFile() {
        fflush(stderr);
        saved = dup(2);
        int fd = open(path.c_str(), O_WRONLY | O_TRUNC);
        dup2(fd, 2);
        close(fd);
    }
    ~StderrToFile() {
        fflush(stderr);
        dup2(saved, 2);
        close(saved);
    }
};

// The logger as a fresh context reports it: kind, stream, function, level, lock.
using State = std::tuple<uint32_t, FILE *, const void *, int, bool>;
State state_now() {
    vyr_logger_ctx_t *c = vyr_get_logger_ctx();
    State s{c->kind, c->stream, (const void *)c->log_func, c->level, c->mutex != nullptr};
    vyr_destroy_logger_ctx(c);
    return s;
}

void other_log_func(int, const char *, ...) {}

// Runs a lambda in a fresh process, so it starts from a logger that never ran
// (the lock, once made, stays for the life of the process).
#define EXPECT_IN_CHILD(...)                                                     \
    EXPECT_EXIT(((__VA_ARGS__)(), _exit(::testing::Test::HasFailure() ? 1 : 0)), \
                ::testing::ExitedWithCode(0), "")

class LoggerTest : public ::testing::Test {
  protected:
    void SetUp() override { GTEST_FLAG_SET(death_test_style, "threadsafe"); }
    void TearDown() override {
        vyr_set_log_level(0);
        vyr_close_logger();  // closes a file logger left open by a test
        vyr_set_log_func(nullptr, 0);
        vyr_init_stderr_logger(0);
    }
    vyrtest::unit::ScopedEnv env_{"VYR_API_LOG_LEVEL", "API_LOG_LEVEL", "VYR_LOG_THREAD_SAFE",
                                  "LOG_THREAD_SAFE"};
};

// Every line is "[date time.mmm] ", the level's prefix, the message and a
// newline, flushed at once: the file is read while the logger still holds it.
TEST_F(LoggerTest, FileLoggerLineFormatGatingAndFlush) {
    TempFile file("stale content\n");
    ASSERT_EQ(vyr_init_file_logger(file.path.c_str(), 7), 1);
    // The lock set-up looks up its switch and says so in the truncated file.
    std::string content = file.read();
    ASSERT_EQ(unstamped(content), Lines{kNoLockSwitchLine}) << content;
    // Levels above 7 go through _vyr_log, which does not gate.
    const struct {
        int level;
        const char *prefix;
    } cases[] = {{3, "[error] "}, {4, "[warning] "}, {5, ""}, {6, "[info] "},
                 {7, "[debug] "}, {0, ""},           {8, ""}};
    for (const auto &c : cases) {
        size_t before = content.size();
        if (c.level > 7)
            _vyr_log(c.level, "message %d at %s", c.level, "level");
        else
            VYR_LOG(c.level, "message %d at %s", c.level, "level");
        content = file.read();
        EXPECT_EQ(unstamped(content.substr(before)),
                  Lines{c.prefix + ("message " + std::to_string(c.level)) + " at level"});
    }
    VYR_LOG(8, "gated");
    EXPECT_EQ(file.read(), content);
    State s = state_now();  // the lock is on by default
    EXPECT_EQ(s, State(VYR_LOGGER_FILE, std::get<1>(s), nullptr, 7, true));
    // Closing leaves a stderr logger at the same level.
    StderrToFile err;
    vyr_close_logger();
    EXPECT_EQ(unstamped(err.read()), Lines{kNoLockSwitchLine});
    EXPECT_EQ(state_now(), State(VYR_LOGGER_STDERR, stderr, nullptr, 7, true));
    // A file that cannot be opened leaves a stderr logger, silently.
    LogCapture cap(7);
    EXPECT_EQ(vyr_init_file_logger("/nonexistent_vyr_dir/log.txt", 6), 0);
    EXPECT_EQ(state_now(), State(VYR_LOGGER_STDERR, stderr, nullptr, 6, true));
    EXPECT_EQ(texts(cap), Lines{kNoLockSwitch});
    // The syslog logger carries neither stream nor function; a function logger its function.
    ASSERT_EQ(vyr_init_syslog_logger("vyr_logger_test", 5), 1);
    EXPECT_EQ(state_now(), State(VYR_LOGGER_SYSLOG, nullptr, nullptr, 5, true));
    vyr_close_logger();
    vyr_set_log_func(other_log_func, 3);
    EXPECT_EQ(state_now(), State(VYR_LOGGER_FUNC, nullptr, (const void *)other_log_func, 3, true));
    EXPECT_EQ(vyr_set_log_level(2), 3);
    EXPECT_EQ(vyr_get_log_func(), other_log_func);
}

// The first message initialises a stderr logger from VYR_API_LOG_LEVEL (or
// its plain spelling); anything "%d" cannot read means level 0. Gating
// compares unsigned: a negative level opens everything.
TEST_F(LoggerTest, DefaultInitialisationAndGating) {
    const char *unset = nullptr;
    const Lines all = {kNoLockSwitchLine, "[error] m3", "[warning] m4", "m5", "[info] m6",
                       "[debug] m7",      "m0"};
    Lines everything = all;
    everything.push_back("m-5");
    const struct {
        const char *prefixed, *plain;
        int level;
        Lines lines;
    } cases[] = {
        {"abc", unset, 0, {"m0"}},
        {unset, "7", 7, all},
        {"5 apples", unset, 5, {"[error] m3", "[warning] m4", "m5", "m0"}},
        {"4", "7", 4, {"[error] m3", "[warning] m4", "m0"}},
        {"-2", unset, -2, everything},
    };
    for (const auto &c : cases) {
        env_.set("VYR_API_LOG_LEVEL", c.prefixed);
        env_.set("API_LOG_LEVEL", c.plain);
        vyr_set_log_func(nullptr, 0);
        vyr_log_level = -1;
        StderrToFile err;
        for (int level : {3, 4, 5, 6, 7, 0, -5}) VYR_LOG(level, "m%d", level);
        EXPECT_EQ(vyr_log_level, c.level) << c.prefixed << " / " << c.plain;
        EXPECT_EQ(unstamped(err.read()), c.lines) << c.prefixed << " / " << c.plain;
    }
    // A gated message's arguments are never evaluated.
    vyr_set_log_level(3);
    int evaluated = 0;
    VYR_DEBUG("%d", ++evaluated);
    EXPECT_EQ(evaluated, 0);
}

// An adopted stream context writes through the host's stream, level and lock,
// and the image's own initialise and close calls are refused; contexts a
// careless host may hand over (no stream, a level never set) are survived.
TEST_F(LoggerTest, AdoptedLoggerWritesToTheHostAndRefusesInitAndClose) {
    EXPECT_IN_CHILD([] {
        static pthread_mutex_t foreign = PTHREAD_MUTEX_INITIALIZER;
        TempFile file, holder;
        FILE *host_stream = fopen(file.path.c_str(), "w");
        vyr_logger_ctx_t *ctx = (vyr_logger_ctx_t *)calloc(1, sizeof *ctx);
        *ctx = {VYR_LOGGER_FILE, host_stream, nullptr, 7, &foreign};
        vyr_set_log_func(nullptr, 0);
        vyr_init_stderr_logger(0);
        EXPECT_EQ(_vyr_register_logger(ctx), 1);
        VYR_WARN("[%s] adopted %d", "plugin", 1);
        VYR_LOG(8, "gated");
        const std::string path = holder.path + ".log";  // must not come into being
        EXPECT_EQ(vyr_init_stderr_logger(3), 0);
        EXPECT_EQ(vyr_init_file_logger(path.c_str(), 3), 0);
        EXPECT_EQ(vyr_init_syslog_logger("vyr_logger_test", 3), 0);
        vyr_close_logger();
        EXPECT_NE(access(path.c_str(), F_OK), 0);
        const std::string refused = "] registered logger cannot initialize logger";
        EXPECT_EQ(unstamped(file.read()),
                  (Lines{"[warning] [plugin] adopted 1",
                         "[debug] [logger] [vyr_init_stderr_logger" + refused,
                         "[debug] [logger] [vyr_init_file_logger" + refused,
                         "[debug] [logger] [vyr_init_syslog_logger" + refused,
                         "[debug] [logger] [vyr_close_logger] tried closing a registered logger, "
                         "skipping closure"}));
        EXPECT_EQ(vyr_log_level, 7);
        EXPECT_EQ(pthread_mutex_trylock(&foreign), 0);  // released after each line
        fclose(host_stream);

        *ctx = {VYR_LOGGER_STDERR, nullptr, nullptr, -1, nullptr};
        EXPECT_EQ(_vyr_register_logger(ctx), 1);
        VYR_WARN("unset level emits nothing");  // must not recurse
        EXPECT_EQ(vyr_log_level, 0);
        ctx->level = 4;
        EXPECT_EQ(_vyr_register_logger(ctx), 1);
        vyr_destroy_logger_ctx(ctx);
        VYR_WARN("falls back to standard error");  // no stream: must not crash
    });
}

// The lock is on unless VYR_LOG_THREAD_SAFE (or its plain spelling) starts
// with something other than 1, t or y; each initializer says so by its name.
TEST_F(LoggerTest, ThreadSafetySwitch) {
    const struct {
        const char *value;  // nullptr: unset
        bool plain, locked;
        const char *init;
    } cases[] = {{"off", true, false, "vyr_init_file_logger"},
                 {"n", false, false, "vyr_init_syslog_logger"},
                 {"Yes", false, true, "vyr_init_stderr_logger"},
                 {"TRUE", false, true, "vyr_init_stderr_logger"},
                 {"1", false, true, "vyr_init_stderr_logger"}};
    for (const auto &c : cases) {
        SCOPED_TRACE(c.value ? c.value : "<unset>");
        const std::string name = c.plain ? "LOG_THREAD_SAFE" : "VYR_LOG_THREAD_SAFE";
        Lines want = {c.value ? "[vyr_getenv] Using '" + name + "'='" + c.value + "'"
                              : kNoLockSwitch};
        if (!c.locked) {
            want.push_back(
                "[logger] [_vyr_init_logger_mutex] Thread safety is disabled by environment "
                "variable VYR_LOG_THREAD_SAFE");
            want.push_back("[logger] [" + std::string(c.init) +
                           "] Initialized logger without thread-safety");
        }
        vyrtest::unit::ScopedEnv env;
        env.set(name, c.value);
        EXPECT_IN_CHILD([&] {
            LogCapture cap(7);
            TempFile file;
            const std::string init = c.init;
            EXPECT_EQ(init == "vyr_init_file_logger" ? vyr_init_file_logger(file.path.c_str(), 7)
                      : init == "vyr_init_syslog_logger"
                          ? vyr_init_syslog_logger("vyr_logger_test", 7)
                          : vyr_init_stderr_logger(7),
                      1);
            EXPECT_EQ(std::get<4>(state_now()), c.locked);
            Lines got = texts(cap);  // the file logger starts from a stderr logger
            EXPECT_EQ(Lines(got.end() - std::min(got.size(), want.size()), got.end()), want);
        });
    }
}

TEST_F(LoggerTest, HexDump) {
    const unsigned char twenty[] = {0x00, 0x01, 0x41, 0x62, 0x7E, 0x7F, 0x20, 0x1F, 0x80, 0xFF,
                                    '0',  '1',  '2',  '3',  '4',  '5',  'x',  'y',  '\n', 'z'};
    const struct {
        std::string data;
        Lines lines;
    } cases[] = {
        {std::string(reinterpret_cast<const char *>(twenty), sizeof twenty),
         {"00 01 41 62 7E 7F 20 1F  80 FF 30 31 32 33 34 35  |  ..Ab~. ...012345 ",
          "78 79 0A 7A                                       |  xy.z "}},
        // The line goes out as an argument, never as the format.
        {"%s%n", {"25 73 25 6E" + std::string(39, ' ') + "|  %s%n "}},
    };
    for (const auto &c : cases) {
        LogCapture cap(7);
        log_hex(c.data.data(), c.data.size());
        EXPECT_EQ(texts(cap, VYR_LOG_LEVEL_DEBUG), c.lines);  // debug output
    }
}

}  // namespace

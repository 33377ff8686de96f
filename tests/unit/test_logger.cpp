// The process-wide logger: line format, level gating, default initialisation
// from the environment, the lock switch, and adopted contexts.
#include <gtest/gtest.h>
#include <pthread.h>

#include <regex>

#include "unit_helpers.h"
#include "vyr_logger.h"

namespace {

using vyrtest::LogCapture;
using vyrtest::unit::TempFile;
using vyrtest::unit::texts;
using Lines = std::vector<std::string>;

const std::string kNoLockSwitch =
    "[debug] [vyr_getenv] No value for 'VYR_LOG_THREAD_SAFE' or 'LOG_THREAD_SAFE'";

// The lines of a log text without their "[YYYY-MM-DD HH:MM:SS.mmm] " stamps; a
// line with a malformed stamp, or without its newline, reads "<bad> ...".
Lines unstamped(const std::string &content) {
    static const std::regex stamp(R"(\[\d{4}-\d\d-\d\d \d\d:\d\d:\d\d\.\d{3}\] (.*)\n)");
    Lines out;
    for (std::sregex_iterator it(content.begin(), content.end(), stamp), end; it != end; ++it)
        out.push_back(it->prefix().length() ? "<bad> " + it->prefix().str() : (*it)[1].str());
    return out;
}

// Runs a lambda in a fresh process, so it starts from a logger that never ran
// (the lock, once made, stays for the life of the process).
#define EXPECT_IN_CHILD(...)                                                     \
    EXPECT_EXIT(((__VA_ARGS__)(), _exit(::testing::Test::HasFailure() ? 1 : 0)), \
                ::testing::ExitedWithCode(0), "")

class LoggerTest : public ::testing::Test {
  protected:
    void SetUp() override { GTEST_FLAG_SET(death_test_style, "threadsafe"); }
    void TearDown() override {
        vyr_close_logger();  // closes a file logger left open by a test
        vyr_set_log_func(nullptr, 0);
        vyr_init_stderr_logger(0);
    }
    vyrtest::unit::ScopedEnv env_{"VYR_API_LOG_LEVEL", "API_LOG_LEVEL", "VYR_LOG_THREAD_SAFE",
                                  "LOG_THREAD_SAFE"};
};

// Every line is "[date time.mmm] ", the level's prefix, the message and a
// newline, flushed at once: the file is read while the logger still holds it.
// The truncated file first holds the lock set-up's lookup of its switch;
// levels above 7 go through _vyr_log, which does not gate.
TEST_F(LoggerTest, FileLoggerLineFormatAndGating) {
    TempFile file("stale content\n");
    ASSERT_EQ(vyr_init_file_logger(file.path.c_str(), 7), 1);
    for (int level : {3, 4, 5, 6, 7, 0}) VYR_LOG(level, "m%d %s", level, "x");
    _vyr_log(8, "m8");
    VYR_LOG(8, "gated");
    vyr_set_log_level(-2);  // gating compares unsigned: everything passes
    VYR_LOG(-5, "m-5");
    EXPECT_EQ(unstamped(file.read()),
              (Lines{kNoLockSwitch, "[error] m3 x", "[warning] m4 x", "m5 x", "[info] m6 x",
                     "[debug] m7 x", "m0 x", "m8", "m-5"}));
    vyr_close_logger();
    EXPECT_EQ(vyr_init_file_logger("/nonexistent_vyr_dir/log.txt", 6), 0);
}

// The first message initialises a stderr logger from VYR_API_LOG_LEVEL (or
// its plain spelling); what "%d" cannot read is level 0.
TEST_F(LoggerTest, DefaultInitialisationReadsTheLevel) {
    for (const char *level : {"abc", "5"}) {
        env_.set("API_LOG_LEVEL", level);
        vyr_set_log_func(nullptr, 0);
        vyr_log_level = -1;
        VYR_LOG(9, "gated");
        EXPECT_EQ(vyr_log_level, level[0] == '5' ? 5 : 0) << level;
    }
}

// An adopted stream context writes through the host's stream, level and lock,
// and the image's own initialise and close calls are refused.
TEST_F(LoggerTest, AdoptedLoggerWritesToTheHostAndRefusesInitAndClose) {
    EXPECT_IN_CHILD([] {
        static pthread_mutex_t foreign = PTHREAD_MUTEX_INITIALIZER;
        TempFile file;
        FILE *host_stream = fopen(file.path.c_str(), "w");
        vyr_logger_ctx_t ctx = {VYR_LOGGER_FILE, host_stream, nullptr, 7, &foreign};
        vyr_set_log_func(nullptr, 0);
        vyr_init_stderr_logger(0);
        EXPECT_EQ(_vyr_register_logger(&ctx), 1);
        vyr_logger_ctx_t *handed_on = vyr_get_logger_ctx();  // as it would pass to a further image
        EXPECT_EQ(handed_on->stream, host_stream);
        vyr_destroy_logger_ctx(handed_on);
        VYR_WARN("[%s] adopted %d", "plugin", 1);
        VYR_LOG(8, "gated");
        EXPECT_EQ(vyr_init_stderr_logger(3) + vyr_init_file_logger("/tmp/vyr_never.log", 3) +
                      vyr_init_syslog_logger("vyr_logger_test", 3),
                  0);
        vyr_close_logger();
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
    });
}

// The lock is on unless VYR_LOG_THREAD_SAFE (or its plain spelling) starts
// with something other than 1, t or y; the initializer says so by its name.
TEST_F(LoggerTest, ThreadSafetySwitch) {
    for (const char *value : {"off", "Yes", "TRUE", "1"}) {
        env_.set("LOG_THREAD_SAFE", value);
        EXPECT_IN_CHILD([&] {
            LogCapture cap(7);
            vyr_init_syslog_logger("vyr_logger_test", 7);
            vyr_logger_ctx_t *ctx = vyr_get_logger_ctx();
            EXPECT_EQ(ctx->mutex == nullptr, value[0] == 'o') << value;
            vyr_destroy_logger_ctx(ctx);
            Lines want = {"[vyr_getenv] Using 'LOG_THREAD_SAFE'='" + std::string(value) + "'"};
            if (value[0] == 'o')
                want = {
                    want[0],
                    "[logger] [_vyr_init_logger_mutex] Thread safety is disabled by "
                    "environment variable VYR_LOG_THREAD_SAFE",
                    "[logger] [vyr_init_syslog_logger] Initialized logger without thread-safety"};
            EXPECT_EQ(texts(cap), want);
        });
    }
}

}  // namespace

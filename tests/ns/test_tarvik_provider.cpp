// The plug-in end to end through the system shell, against the simulated zdt
// and phyprobe: configuration, initialization, one collection pass, stop, and
// what the host keeps for itself.
#include <unistd.h>

#include <cstring>
#include <stdexcept>

#include "provider_fixture.h"
#include "test_paths.h"

namespace sim = vyrtest::sim;
using vyrtest::eventually;
using vyrtest::text_at;
using Names = std::vector<std::string>;

namespace {

class TarvikProvider : public vyrtest::ProviderTest {};
const std::string kTp = "[tarvik provider] ";

// Registration follows discovery order, not name order.
TEST_F(TarvikProvider, EmptyDictionaryGivesDefaultsAndEveryDiscoveredDevice) {
    sim::add_device("zeta", "arcline", "eth0");
    sim::add_device("alpha", "tidegate", "eth1");
    auto &log = fresh_log();
    vyr_event_provider_t *d = construct();
    EXPECT_TRUE(static_cast<void *>(d) == p && d->version == 1u);
    EXPECT_STREQ(d->name, "tarvik");
    EXPECT_STREQ(d->description, "Ethernet tarvik data from phyprobe tarvik-collect");
    EXPECT_EQ(device_names(), (Names{"alpha", "zeta"}));
    std::string order;
    for (const auto &l : log.lines())
        if (l.text.find(" will be collected") != std::string::npos) order += l.text[34];
    EXPECT_EQ(order, "za") << log.dump();
}

// Each setting alone: the settings in effect, or the conversion's exception,
// which reaches the host uncaught. The list of devices is split at every comma.
TEST_F(TarvikProvider, SettingsAndTheirConversions) {
    sim::add_device("a");
    sim::add_device("b");
    const struct {
        const char *key, *value, *outcome;
        const char *warned = nullptr;  // the name warned about
    } cases[] = {
        {"tarvik_phyprobe_as_service", "0", "service 0, interval 30, max_errors 10, a b"},
        {"tarvik_update_interval_sec", "15s", "service 1, interval 15, max_errors 10, a b"},
        {"tarvik_max_errors", "4", "service 1, interval 30, max_errors 4, a b"},
        {"tarvik_update_interval_sec", "abc", "invalid_argument stoull"},
        {"tarvik_phyprobe_as_service", "yes", "invalid_argument stoi"},
        {"tarvik_devices", "a,,b", "service 1, interval 30, max_errors 10, a b", ""},
        {"tarvik_devices", "b,", "service 1, interval 30, max_errors 10, b"},
        {"tarvik_devices", ",a,a", "service 1, interval 30, max_errors 10, a", ""},
    };
    for (const auto &c : cases) {
        SCOPED_TRACE(c.value);
        vyr_dict_delete(params);
        params = vyr_dict_create();
        set(c.key, c.value);
        auto &log = fresh_log();
        std::string outcome;
        try {
            construct();
            outcome = "service " + std::to_string(p->run_as_service) + ", interval " +
                      std::to_string(p->update_interval_sec) + ", max_errors " +
                      std::to_string(p->devices.begin()->second.max_errors) + ",";
            for (const auto &n : device_names()) outcome += " " + n;
            EXPECT_TRUE(log.contains(6, kTp + "Update interval is set to " +
                                            std::to_string(p->update_interval_sec) + " sec"));
            EXPECT_TRUE(
                log.contains(6, kTp + (p->run_as_service ? "phyprobe will run as service"
                                                         : "phyprobe will on each iteration")));
        } catch (const std::invalid_argument &e) {
            outcome = std::string("invalid_argument ") + e.what();
        }
        EXPECT_EQ(outcome, c.outcome);
        EXPECT_EQ(log.count(4, kTp + "Device " + (c.warned ? c.warned : "") +
                                   " is set to collect, but not supported"),
                  c.warned ? 1u : 0u);
        release();
    }
}

// Nothing discovered, or only names that were not: initialization refuses,
// stop only joins, and no name from the list ever reaches a shell.
TEST_F(TarvikProvider, NoDeviceToCollect) {
    auto &log = fresh_log();
    construct();
    EXPECT_TRUE(log.contains(3, kTp + "Failed to get allowed devices"));
    sim::add_zdt_file("phyprobe_service_999999");
    start();
    EXPECT_EQ(stop(), 1);
    EXPECT_FALSE(log.contains_fragment("stopping service"));
    release();
    sim::add_device("a");
    set("tarvik_devices", "a;touch /tmp/owned,$(touch /tmp/owned2)");
    set("tarvik_phyprobe_as_service", "0");
    construct();
    EXPECT_TRUE(p->devices.empty());
    EXPECT_TRUE(
        log.contains(4, kTp + "Device a;touch /tmp/owned is set to collect, but not supported"));
    EXPECT_FALSE(initialize());
    EXPECT_TRUE(log.contains(3, kTp + "[tarvik_provider_initialize] No devices to "
                                      "collect. Provider will not run"));
    EXPECT_TRUE(access("/tmp/owned", F_OK) && access("/tmp/owned2", F_OK));
    EXPECT_TRUE(sim::phyprobe_argv_log().empty());
}

TEST_F(TarvikProvider, DevicesWithTheSameHeaderShareOneType) {
    for (const char *n : {"a", "b", "c"}) sim::add_device(n);
    sim::set_phyprobe_knob("HEADER", "alt", "c");
    auto &log = fresh_log();
    construct();
    ASSERT_TRUE(initialize());
    EXPECT_EQ(p->type_infos.size(), 2u);
    EXPECT_STREQ(dev("a").header_id, dev("b").header_id);
    EXPECT_EQ(p->type_infos.at(dev("c").header_id).type_index, 1);
    EXPECT_TRUE(log.contains(6, kTp + "[tarvik_provider_initialize] Device b has the same "
                                      "tarvik header as another device"));
    const vyr_type_definition_t *t = ts->schemas[p->provider.schema_index]->types[0];
    EXPECT_EQ(t->fields[2]->index, 1);  // device_name is the index field
    // Each device points at its type entry; only a header's first device keeps
    // its field list (the entry's), and no parser keeps its texts.
    for (const char *n : {"a", "b", "c"}) {
        EXPECT_EQ(text_at(dev(n).event_cache + 72), n);
        EXPECT_EQ(dev(n).type_info, &p->type_infos.at(dev(n).header_id));
        EXPECT_TRUE(dev(n).parser->headerFields.empty() && dev(n).parser->valueFields.empty());
    }
    EXPECT_EQ(dev("a").parser->typesInfo, dev("a").type_info->fields);
    EXPECT_EQ(dev("b").parser->typesInfo, nullptr);
    EXPECT_EQ(dev("c").parser->typesInfo, dev("c").type_info->fields);
}

// A text, a float and an integer column make a 216-byte event; one one-shot
// pass runs the tool and converts its value line into it, and the host
// receives it. A second life in the same process (construct after destroy,
// a new type system) goes exactly like the first.
TEST_F(TarvikProvider, OneShotPassFillsTheEventByFieldType) {
    const std::string name(70, 'n');  // cut to 63 bytes in the event
    sim::add_device(name);
    sim::set_phyprobe_knob("HEADER_LINE", "txt,flt,num");
    sim::set_phyprobe_knob("VALUE_LINE", "x,2.5,{run}");
    one_shot();
    for (uint64_t life : {1, 2}) {
        SCOPED_TRACE(life);
        auto &log = fresh_log();
        bring_up();
        EXPECT_TRUE(log.contains(6, kTp + "[_create_tarvik_event_type] Found 3 tarvik fields"));
        const vyr_type_definition_t *t = ts->schemas[p->provider.schema_index]->types[0];
        EXPECT_EQ(t->size, 216u);
        std::string layout;  // the columns' fields after the fixed 136 bytes
        for (int i = 3; i < t->num_fields; ++i) {
            const vyr_type_field_definition_t *f = t->fields[i];
            layout += std::string(f->field_name) + "/" + f->description + ":" + f->type_name + "[" +
                      std::to_string(f->array_length) + "]@" + std::to_string(f->offset) + " ";
        }
        EXPECT_EQ(layout, "txt/txt:char[64]@136 flt/flt:double[1]@200 num/num:uint64_t[1]@208 ");

        log.clear();
        pass({name});
        EXPECT_EQ(sim::phyprobe_argv_log().back(), vyrtest::one_shot_argv(name));
        const uint8_t *e = dev(name).event_cache;
        double ratio;
        memcpy(&ratio, e + 200, 8);
        EXPECT_GT(stamp(name), 1600000000ull * 1000000ull);
        EXPECT_EQ(text_at(e + 8) + " " + text_at(e + 72) + " " + text_at(e + 136) + " " +
                      std::to_string(ratio) + " " + std::to_string(e[208]),
                  "tarvik_event " + std::string(63, 'n') + " x 2.500000 " +
                      std::to_string(2 * life));  // the header run was run 1 (3 in the second life)
        EXPECT_TRUE(log.contains(7, kTp +
                                        "[tarvik_thread_callback] Collecting tarvik data "
                                        "for device " +
                                        name));
        release();
    }
}

TEST_F(TarvikProvider, StaleFilesAreRemovedBeforeTheHeaderRun) {
    sim::add_device("d");
    vyrtest::write_file("/tmp/tarvik_collect_dhdr.csv", "stale,header\n1,2\n");
    vyrtest::write_file("/tmp/tarvik_collect_d.csv", "stale\n");
    sim::set_phyprobe_knob("FAIL_HEADER_RUN", "1");
    construct();
    EXPECT_TRUE(initialize());
    EXPECT_TRUE(access("/tmp/tarvik_collect_dhdr.csv", F_OK) &&
                access("/tmp/tarvik_collect_d.csv", F_OK));
}

TEST_F(TarvikProvider, TypeCreationFailureReleasesEveryDevice) {
    sim::add_device("a");
    sim::add_device("b");
    // Cleaning makes two x_1 fields; a later field makes the schema compare them.
    sim::set_phyprobe_knob("HEADER_LINE", "x[1],x_1,y", "b");
    auto &log = fresh_log();
    construct();
    EXPECT_FALSE(initialize());
    EXPECT_TRUE(p->devices.empty());
    EXPECT_TRUE(
        log.contains(3, kTp + "[tarvik_provider_initialize] Could not create tarvik event type"))
        << log.dump();
}

// One-shot mode scans for markers too. A name holding the marker text
// elsewhere passes the substring test, but its id is read at the prefix's
// length: "ice_77" is no number, and the conversion throws to the host. The
// threads are gone by then: stop again and destroy are safe. A marker naming
// the host is logged, never signalled.
TEST_F(TarvikProvider, MarkersNeverEndTheHostAndAThrowLeavesNothingRunning) {
    sim::add_device("a");
    set("tarvik_phyprobe_as_service", "0");
    construct();
    ASSERT_TRUE(initialize());
    auto &log = fresh_log();
    start();
    const std::string host = std::to_string(getpid());
    sim::add_zdt_file("phyprobe_service_" + host);
    sim::add_zdt_file("phyprobe_service_999997");
    sim::add_zdt_file("x_phyprobe_service_77");
    started = false;
    EXPECT_THROW(p->provider.stop(&p->provider), std::invalid_argument);
    EXPECT_EQ(p->collect_thread, 0u);  // joined before the scan
    for (const std::string &id : {host, std::string("999997")})
        EXPECT_TRUE(log.contains(6, kTp + "[tarvik_provider_stop] stopping service by PID " + id));
    EXPECT_THROW(p->provider.stop(&p->provider), std::invalid_argument);
    tarvik_provider_destroy(&p->provider);
}

// destroy on a running provider stops it first: no thread or tool outlives it.
TEST_F(TarvikProvider, DestroyWithoutStopStopsFirst) {
    sim::add_device("a");
    sim::add_device("b");
    set("tarvik_update_interval_sec", "1");
    sim::set_phyprobe_knob("SERVICE_SLEEP", "100");
    bring_up();
    start();
    started = false;
    ASSERT_TRUE(eventually([&] { return sim::service_markers().size() == 2; }));
    host.reset();
    tarvik_provider_destroy(&p->provider);
    EXPECT_EQ(p->collect_thread, 0u);
    EXPECT_TRUE(p->devices.empty());
    EXPECT_NE(system("pgrep -f '[/]phyprobe' > /dev/null"), 0);
}

}  // namespace

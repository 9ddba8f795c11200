#include "psensor.h"

#include <cstdlib>
#include <cstring>
#include <ctime>
#include <string>
#include <vector>

#include <gtest/gtest.h>

namespace {

// A list of names as psensors_init takes it, ended by NULL.
class Names {
  public:
    explicit Names(size_t count)
    {
        for (size_t i = 0; i < count; ++i) {
            texts_.push_back("user" + std::to_string(i));
        }
        for (const std::string& text : texts_) {
            list_.push_back(text.c_str());
        }
        list_.push_back(nullptr);
    }

    const char** list() { return list_.data(); }

  private:
    std::vector<std::string> texts_;
    std::vector<const char*> list_;
};

void spin(long nanoseconds)
{
    timespec from{};
    timespec now{};
    clock_gettime(CLOCK_MONOTONIC, &from);
    do {
        clock_gettime(CLOCK_MONOTONIC, &now);
    } while ((now.tv_sec - from.tv_sec) * 1000000000L + now.tv_nsec - from.tv_nsec < nanoseconds);
}

std::string dump()
{
    char* text = nullptr;
    size_t length = 0;
    FILE* fp = open_memstream(&text, &length);
    psensors_dump(fp);
    fclose(fp);
    std::string result{text, length};
    free(text);
    return result;
}

size_t count_of(const std::string& text, const std::string& part)
{
    size_t count = 0;
    for (size_t at = text.find(part); at != std::string::npos; at = text.find(part, at + 1)) {
        ++count;
    }
    return count;
}

bool ran(int slot)
{
    const timespec& tm = g_psensor[slot].sensor.accum.tm;
    return tm.tv_sec != 0 || tm.tv_nsec != 0;
}

} // namespace

TEST(Psensor, library_sensors_stand_at_their_slots)
{
    const std::vector<std::pair<int, std::string>> expected = {
        {PRF_APP, "app"},          {PRF_EVLOOP, "ev_loop"}, {PRF_EVREAD, "ev_read"},
        {PRF_EVWRITE, "ev_write"}, {PRF_EVERR, "ev_err"},   {PRF_EVPP, "ev_pp"},
        {PRF_EVIDLE, "ev_idle"},   {PRF_DATAIN, "data_in"}, {PRF_DATAOUT, "data_out"}};
    ASSERT_EQ(expected.size(), static_cast<size_t>(PRF_SYS_COUNT));
    EXPECT_EQ(psensors_init(nullptr, 0), 0);
    int slot = 0;
    for (const auto& [number, name] : expected) {
        EXPECT_EQ(number, slot);
        EXPECT_EQ(g_libsensor_tag[slot], name);
        EXPECT_EQ(g_psensor[slot].nametag, name);
        EXPECT_EQ(g_psensor[slot].sensor.flags, prfm_TIME | prfm_RUSAGE);
        EXPECT_EQ(g_psensor[slot].sensor.who, RUSAGE_SELF);
        EXPECT_EQ(g_psensor[slot].enabled, 0U);
        EXPECT_EQ(g_psensor[slot].started, 0U);
        ++slot;
    }
    EXPECT_EQ(g_libsensor_tag[PRF_SYS_COUNT], nullptr);
    EXPECT_EQ(g_psensor[USENSOR_FIRST].nametag, nullptr);
    EXPECT_EQ(g_app_psensor.ucount, 0U);
    EXPECT_EQ(USENSOR_FIRST, 9);
    EXPECT_EQ(MAX_PSENSORS, 73);
}

TEST(Psensor, init_enables_all_or_none)
{
    Names names(2);
    psensors_init(names.list(), 5);
    for (int i = 0; i < USENSOR_FIRST + 2; ++i) {
        EXPECT_EQ(g_psensor[i].enabled, 1U) << i;
    }
    EXPECT_EQ(g_psensor[USENSOR_FIRST + 2].enabled, 0U);
    psensors_init(names.list(), 0);
    for (int i = 0; i < USENSOR_FIRST + 2; ++i) {
        EXPECT_EQ(g_psensor[i].enabled, 0U) << i;
    }
    EXPECT_EQ(g_app_psensor.ucount, 2U);
}

TEST(Psensor, sixty_four_application_names_fill_the_table)
{
    Names names(64);
    EXPECT_EQ(psensors_init(names.list(), 0), 0);
    EXPECT_EQ(g_app_psensor.ucount, 64U);
    EXPECT_EQ(g_psensor[MAX_PSENSORS - 1].nametag, names.list()[63]);
}

TEST(Psensor, a_sixty_fifth_name_is_ignored)
{
    Names names(65);
    EXPECT_EQ(psensors_init(names.list(), 1), 0);
    EXPECT_EQ(g_app_psensor.ucount, 64U);
    EXPECT_STREQ(g_psensor[MAX_PSENSORS - 1].nametag, "user63");
}

TEST(Psensor, an_empty_list_of_names_gives_no_sensor)
{
    Names names(0);
    psensors_init(names.list(), 1);
    EXPECT_EQ(g_app_psensor.ucount, 0U);
}

TEST(Psensor, init_forgets_what_the_table_held)
{
    Names names(64);
    psensors_init(names.list(), 1);
    psensor_start(MAX_PSENSORS - 1);
    psensors_init(nullptr, 0);
    EXPECT_EQ(g_psensor[MAX_PSENSORS - 1].nametag, nullptr);
    EXPECT_EQ(g_psensor[MAX_PSENSORS - 1].started, 0U);
}

TEST(Psensor, libptag_index_ignores_case_and_refuses_unknown_names)
{
    EXPECT_EQ(libptag_index("EV_READ"), 2);
    EXPECT_EQ(libptag_index("Data_Out"), 8);
    EXPECT_EQ(libptag_index("app"), 0);
    EXPECT_EQ(libptag_index("ev_reader"), -1);
    EXPECT_EQ(libptag_index(""), -1);
}

TEST(Psensor, a_disabled_sensor_does_nothing)
{
    psensors_init(nullptr, 0);
    psensor_start(PRF_APP);
    EXPECT_EQ(g_psensor[PRF_APP].started, 0U);
    spin(1000);
    psensor_stop(PRF_APP);
    psensor_probe(PRF_APP);
    EXPECT_FALSE(ran(PRF_APP));
    EXPECT_EQ(g_psensor[PRF_APP].sensor.accum.ru.ru_maxrss, 0);
}

TEST(Psensor, a_sensor_enabled_within_a_span_keeps_nothing_of_it)
{
    psensors_init(nullptr, 0);
    psensor_start(PRF_APP);
    spin(1000);
    psensor_enable(PRF_APP);
    psensor_stop(PRF_APP);
    EXPECT_FALSE(ran(PRF_APP));
}

TEST(Psensor, stop_without_start_does_nothing)
{
    psensors_init(nullptr, 1);
    psensor_stop(PRF_APP);
    EXPECT_FALSE(ran(PRF_APP));
    psensor_start(PRF_APP);
    spin(1000);
    psensor_stop(PRF_APP);
    const timespec once = g_psensor[PRF_APP].sensor.accum.tm;
    psensor_stop(PRF_APP);
    EXPECT_EQ(memcmp(&g_psensor[PRF_APP].sensor.accum.tm, &once, sizeof once), 0);
}

TEST(Psensor, an_inner_start_does_nothing_and_the_first_stop_ends_the_span)
{
    psensors_init(nullptr, 1);
    psensor_start(PRF_APP);
    const timespec outer = g_psensor[PRF_APP].sensor.start.tm;
    spin(1000);
    psensor_start(PRF_APP);
    EXPECT_EQ(memcmp(&g_psensor[PRF_APP].sensor.start.tm, &outer, sizeof outer), 0);
    psensor_stop(PRF_APP);
    EXPECT_TRUE(ran(PRF_APP));
    EXPECT_EQ(g_psensor[PRF_APP].started, 0U);
}

TEST(Psensor, disabling_a_running_sensor_loses_its_span_until_it_is_enabled_again)
{
    psensors_init(nullptr, 1);
    psensor_start(PRF_APP);
    const timespec begin = g_psensor[PRF_APP].sensor.start.tm;
    psensor_disable(PRF_APP);
    spin(1000);
    psensor_stop(PRF_APP);
    EXPECT_FALSE(ran(PRF_APP));
    EXPECT_EQ(g_psensor[PRF_APP].started, 1U);
    psensor_enable(PRF_APP);
    psensor_start(PRF_APP); // still running: the old start stays
    EXPECT_EQ(memcmp(&g_psensor[PRF_APP].sensor.start.tm, &begin, sizeof begin), 0);
    psensor_stop(PRF_APP);
    EXPECT_TRUE(ran(PRF_APP));
    EXPECT_GE(g_psensor[PRF_APP].sensor.accum.tm.tv_sec * 1000000000L +
                  g_psensor[PRF_APP].sensor.accum.tm.tv_nsec,
              1000);
}

TEST(Psensor, probe_takes_the_totals_of_the_process)
{
    psensors_init(nullptr, 1);
    psensor_probe(PRF_APP);
    EXPECT_GT(g_psensor[PRF_APP].sensor.accum.ru.ru_maxrss, 0);
    EXPECT_FALSE(ran(PRF_APP));
}

TEST(Psensor, slots_outside_the_table_are_refused)
{
    psensors_init(nullptr, 1);
    const std::vector<psensor> before(g_psensor, g_psensor + MAX_PSENSORS);
    for (const off_t slot : {off_t{-1}, off_t{MAX_PSENSORS}, off_t{1} << 40, -(off_t{1} << 40)}) {
        EXPECT_EQ(psensor_at(slot), nullptr);
        psensor_enable(slot);
        psensor_start(slot);
        psensor_stop(slot);
        psensor_probe(slot);
        psensor_disable(slot);
    }
    EXPECT_EQ(memcmp(before.data(), g_psensor, sizeof g_psensor), 0);
    EXPECT_EQ(psensor_at(0), &g_psensor[0]);
    EXPECT_EQ(psensor_at(MAX_PSENSORS - 1), &g_psensor[MAX_PSENSORS - 1]);
}

TEST(Psensor, a_macro_evaluates_its_slot_once)
{
    psensors_init(nullptr, 0);
    int slot = 0;
    psensor_enable(slot++);
    psensor_start(slot++);
    psensor_stop(slot++);
    psensor_probe(slot++);
    psensor_disable(slot++);
    EXPECT_EQ(slot, 5);
}

TEST(Psensor, dump_prints_sensors_that_are_enabled_and_have_run)
{
    Names names(2);
    psensors_init(names.list(), 1);
    g_psensor[PRF_EVLOOP].sensor.accum.tm = {0, 1};
    g_psensor[PRF_EVREAD].sensor.accum.tm = {1, 0};
    g_psensor[PRF_DATAIN].sensor.accum.tm = {1, 1};
    psensor_disable(PRF_DATAIN);
    g_psensor[USENSOR_FIRST + 1].sensor.accum.tm = {2, 5};
    const std::string text = dump();
    EXPECT_EQ(count_of(text, "P-Sensor ["), 3U) << text;
    EXPECT_NE(text.find("P-Sensor [ev_loop]\n== time:\t0.000000001\n== resource usage:\n"),
              std::string::npos);
    EXPECT_NE(text.find("P-Sensor [ev_read]\n== time:\t1.000000000\n"), std::string::npos);
    EXPECT_NE(text.find("P-Sensor [user1]\n== time:\t2.000000005\n"), std::string::npos);
}

TEST(Psensor, a_sensor_that_never_ran_prints_nothing)
{
    psensors_init(nullptr, 1);
    EXPECT_EQ(dump(), "");
}

TEST(Psensor, slots_behind_the_applications_are_not_touched)
{
    Names names(3);
    psensors_init(names.list(), 1);
    psensor& behind = g_psensor[USENSOR_FIRST + 3];
    behind.nametag = "behind";
    behind.enabled = 1;
    prfm_init(&behind.sensor);
    behind.sensor.accum.tm = {1, 1};
    EXPECT_EQ(dump(), "");
    psensors_destroy();
    EXPECT_EQ(behind.sensor.accum.tm.tv_sec, 1);
    EXPECT_EQ(behind.sensor.flags, prfm_TIME | prfm_RUSAGE);
    for (int i = 0; i < USENSOR_FIRST + 3; ++i) {
        EXPECT_EQ(g_psensor[i].sensor.flags, 0) << i;
    }
}

TEST(Psensor, dump_begins_with_the_first_slot)
{
    psensors_init(nullptr, 1);
    g_psensor[0].sensor.accum.tm = {1, 1};
    EXPECT_EQ(count_of(dump(), "P-Sensor [" + std::string(g_psensor[0].nametag) + "]"), 1U);
}

TEST(Psensor, destroy_clears_the_accumulators)
{
    psensors_init(nullptr, 1);
    g_psensor[PRF_APP].sensor.accum.tm = {1, 1};
    psensors_destroy();
    EXPECT_FALSE(ran(PRF_APP));
    EXPECT_EQ(dump(), "");
}

// Audio devices and the output lock on sound servers each test starts. The listener flag is
// one-way for a process's life: each case runs in its own process (CTest runs them so).
#include "capture/audio/audio_device_control.h"
#include "capture/audio/audio_device_lock.h"
#include "common/notification_center.h"
#include "common/notification_names.h"
#include "media_test_support.h"
#include "sound_server.h"
#include "support/test_support.h"

#include <gtest/gtest.h>

using namespace velocast;
using namespace velocast::capture;
using velocast::test::LogRecorder;
using velocast::test::SoundServer;
using velocast::test::waitUntil;
using namespace std::chrono_literals;

namespace {

const char *const kNotices[] = {
    notice::kDVKAudioHardwareDefaultOutputDeviceDidChangeNotification,
    notice::kDVKAudioHardwareDefaultInputDeviceDidChangeNotification,
    notice::kDVKAudioHardwareDefaultSystemOutputDeviceDidChangeNotification,
    notice::kDVKAudioHardwareDeviceListDidChangeNotification,
};

// Records the four notifications in the order they arrive (from any thread).
struct NoticeLog : velocast::test::Collector<QString> {
    NoticeLog()
    {
        for (const char *name : kNotices)
            observations.push_back(NotificationCenter::defaultCenter().addObserver(name, [this, name](const QVariant &) { add(name); }));
    }
    QStringList names() const
    {
        const auto seen = items();
        return {seen.begin(), seen.end()};
    }
    std::vector<Observation> observations;
};

TEST(AudioDeviceControl, TheListenerWalkStopsAtTheFirstPropertyItHasNoNotificationFor)
{
    using namespace audio_property;
    const struct {
        std::vector<uint32_t> batch;
        QStringList expected;
    } cases[] = {
        {{kVolumeScalar, kDefaultOutputDevice}, {}},
        {{kDefaultOutputDevice, kVolumeScalar, kDevices}, {kNotices[0]}},
        {{kDevices, kDefaultInputDevice, kDefaultSystemOutputDevice, kDefaultOutputDevice},
         {kNotices[3], kNotices[1], kNotices[2], kNotices[0]}},
        {{kDefaultInputDevice, kDeviceUID, kDefaultInputDevice}, {kNotices[1]}},
        {{}, {}},
    };
    for (const auto &c : cases) {
        NoticeLog log;
        std::vector<AudioPropertyAddress> batch;
        for (uint32_t selector : c.batch) batch.push_back({selector});
        EXPECT_EQ(AudioDeviceControl::propertyListener(batch), 0);
        EXPECT_EQ(log.names(), c.expected) << c.batch.size() << " properties";
    }
}

class AudioDevices : public testing::TestWithParam<const char *> {
protected:
    void SetUp() override { ASSERT_TRUE(server.start()) << server.error().toStdString(); }
    int sink(const char *name) const { return server.index("sinks", name); }
    int source(const char *name) const { return server.index("sources", name); }
    QString defaultSink() const { return server.pactl({"get-default-sink"}); }
    SoundServer server{GetParam()};
};

TEST_P(AudioDevices, ListsTheOutputsFindsThemByUIDAndSwitchesTheDefaults)
{
    const std::vector<AudioObjectID> ids = AudioDeviceControl::allDevicesIDS();
    struct Row {
        const char *uid;
        const char *name;
    } rows[] = {{"vc_speakers", "Speakers"}, {"vc_headset", "Headset"}, {"vc_room", "Room"}};
    for (const Row &r : rows) {
        const int id = sink(r.uid);
        ASSERT_GE(id, 0) << r.uid;
        EXPECT_NE(std::find(ids.begin(), ids.end(), AudioObjectID(id)), ids.end()) << r.uid;
        EXPECT_EQ(AudioDeviceControl::deviceUID(id), r.uid);
        EXPECT_EQ(AudioDeviceControl::deviceNameWithID(id), r.name);
        EXPECT_TRUE(AudioDeviceControl::deviceManufacturerWithID(id).isNull()) << "a null sink names no maker";
        EXPECT_EQ(AudioDeviceControl::deviceWithUID(r.uid), AudioObjectID(id));
    }
    EXPECT_EQ(ids.size(), 3u) << "outputs only; the sources are not devices of this list";
    EXPECT_EQ(AudioDeviceControl::deviceWithUID("vc_nothing"), 0u);
    EXPECT_TRUE(AudioDeviceControl::deviceUID(999999).isNull());
    EXPECT_EQ(AudioDeviceControl::defaultOutputDevice(), AudioObjectID(sink("vc_speakers")));
    EXPECT_EQ(AudioDeviceControl::defaultInputDevice(), AudioObjectID(source("vc_room.monitor")));

    LogRecorder log;
    AudioDeviceControl::changeDefaultOutputDeviceWithID(sink("vc_headset"));
    EXPECT_EQ(defaultSink(), "vc_headset");
    AudioDeviceControl::changeDefaultInputDeviceWithID(source("vc_mic"));
    EXPECT_EQ(server.pactl({"get-default-source"}), "vc_mic");
    EXPECT_EQ(log.lines().filter("statu: 0").size(), 2) << log.lines().join('\n').toStdString();
    EXPECT_TRUE(log.lines().filter("change device failed").isEmpty());

    AudioDeviceControl::changeDefaultOutputDeviceWithID(999999);
    EXPECT_EQ(defaultSink(), "vc_headset");
    EXPECT_EQ(log.lines().filter("statu: ").size(), 3);
    EXPECT_NE(log.lines().filter("statu: ").last(), "statu: 0");
    EXPECT_EQ(log.lines().filter("change device failed").size(), 1);
}

TEST_P(AudioDevices, TheLockRevertsOutsideChangesSettlesAndAfterAStopInstallsNoListenerAgain)
{
    LogRecorder log;
    // An unknown device: nothing locked.
    const int observers = NotificationCenter::defaultCenter().observerCount(kNotices[0]);
    EXPECT_EQ(AudioDeviceLock::lockOutputDeviceWithUID("vc_nothing")->deviceID(), 0u);
    EXPECT_EQ(NotificationCenter::defaultCenter().observerCount(kNotices[0]), observers) << "an unknown device is not watched";
    EXPECT_TRUE(log.lines().filter("statu: ").isEmpty()) << "nor switched to";

    auto lock = AudioDeviceLock::lockOutputDeviceWithUID("vc_headset");
    ASSERT_EQ(lock->deviceID(), AudioObjectID(sink("vc_headset")));
    EXPECT_EQ(defaultSink(), "vc_headset");
    for (const char *other : {"vc_speakers", "vc_room"}) {
        server.pactl({"set-default-sink", other});
        ASSERT_TRUE(waitUntil([&] { return defaultSink() == "vc_headset"; }, 10s)) << other;
    }
    // Settled: more round trips to the server add no switch (a self-triggered one would).
    const int switches = int(log.lines().filter("statu: ").size());
    for (int i = 0; i < 5; ++i) EXPECT_EQ(defaultSink(), "vc_headset");
    EXPECT_EQ(AudioDeviceControl::defaultOutputDevice(), lock->deviceID());
    EXPECT_EQ(int(log.lines().filter("statu: ").size()), switches);
    // One to lock, per outside change a switch back and a few while the server's reports catch up.
    EXPECT_LE(switches, 1 + 2 * 4) << log.lines().join('\n').toStdString();

    // Stopped, then started again: the switch happens, the listener is not installed again.
    lock->stopLock();
    server.pactl({"set-default-sink", "vc_speakers"});
    EXPECT_EQ(AudioDeviceControl::defaultOutputDevice(), AudioObjectID(sink("vc_speakers")));
    lock->startLockWithUID("vc_headset");
    EXPECT_EQ(defaultSink(), "vc_headset");
    server.pactl({"set-default-sink", "vc_room"});
    for (int i = 0; i < 5; ++i) EXPECT_EQ(defaultSink(), "vc_room") << "nothing reverts it any more";
    EXPECT_TRUE(AudioDeviceControl::isListenerInstalled());
}

INSTANTIATE_TEST_SUITE_P(Servers, AudioDevices, testing::Values("pulse", "pipewire"),
                         [](const testing::TestParamInfo<const char *> &info) { return std::string(info.param); });

} // namespace

// The live encoder bridge: its states and flags against the push API (casts through it are
// the capture session's tests).
#include "push/bridge/camera_encoder.h"
#include "media_test_support.h"
#include "support/loopback_peer.h"

#include <gtest/gtest.h>

using namespace velocast::capture;
using namespace velocast::test;
using velocast::push::CameraEncoder;

TEST(CameraEncoder, StatesAndFlagsFollowStartStopAndBackground)
{
    LogRecorder log;
    Collector<int32_t> states;
    auto camera = std::make_unique<CameraEncoder>();
    camera->setStateBlock([&](int32_t s) { states.add(s); });
    EXPECT_TRUE(camera->foreEnable());
    EXPECT_FALSE(camera->isRunning());
    EXPECT_FALSE(camera->pushBuffer(makeNv12(64, 48, 0))) << "not running";

    // Stop without a start: closes nothing (null handle) and still reports "stopped".
    camera->stopCamera();
    EXPECT_EQ(states.items(), std::vector<int32_t>{CameraEncoder::kStateStopped});

    // A frame with no push handle is dropped with a log line.
    camera->gotH264EncodedData({0, 0, 0, 1, 0x65}, true, MediaTime(), nullptr);
    EXPECT_TRUE(log.lines().contains("handle null"));

    // Nothing listens: the connect fails inside the push API, but the bridge is living.
    const uint16_t port = refusedPort();
    ASSERT_NE(port, 0);
    camera->startLiving("127.0.0.1", port, port + 1);
    EXPECT_TRUE(camera->isRunning());
    EXPECT_NE(camera->handle(), nullptr);
    EXPECT_EQ(states.items(), (std::vector<int32_t>{CameraEncoder::kStateStopped, CameraEncoder::kStateLiving}));
    const QString started = QString("start Living : 127.0.0.1 %1 %2 ").arg(port).arg(port + 1);
    EXPECT_EQ(log.lines().count(started), 1) << log.lines().join('\n').toStdString();
    // A second start while living changes nothing and logs nothing.
    camera->startLiving("127.0.0.1", port, port + 1);
    EXPECT_EQ(log.lines().count(started), 1);
    EXPECT_EQ(states.items().size(), 2u);

    // Background: not running, frames refused, handle cleared.
    camera->backgroundHandle();
    EXPECT_FALSE(camera->isRunning());
    EXPECT_FALSE(camera->foreEnable());
    EXPECT_EQ(camera->handle(), nullptr);
    EXPECT_TRUE(camera->h264Encoder()->unable());
    // Living again but still in the background: pushBuffer says "running" without encoding.
    camera->startLiving("127.0.0.1", port, port);
    EXPECT_TRUE(camera->pushBuffer(makeNv12(64, 48, 1)));
    EXPECT_FALSE(camera->h264Encoder()->hasSession());
    camera->foregroundHandle();
    EXPECT_TRUE(camera->foreEnable());
    camera->stopCamera();
    EXPECT_EQ(states.items().back(), CameraEncoder::kStateStopped);

    camera->destroyEv();
    EXPECT_EQ(camera->h264Encoder(), nullptr);
    EXPECT_FALSE(camera->pushBuffer(makeNv12(64, 48, 2)));
    camera.reset();
    EXPECT_EQ(log.lines().count("-[CameraEncoder destroyEv]"), 2) << "once by hand, once by the destructor";
    EXPECT_EQ(log.lines().count("-[CameraEncoder stopCamera]"), 2);
}

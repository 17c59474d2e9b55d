// Soak: casts in a row through the connection session, each ending in one of the three ways
// (the receiver closes the channel or ends the cast, the user disconnects). After a warm-up no
// descriptor, thread or memory may be left over: what a cast opens goes when it ends.
#include "capture/session/mac_screen_capture.h"

#include "capture/h264_hw_encoder.h"
#include "common/notification_center.h"
#include "common/notification_names.h"
#include "control/connection_session.h"
#include "control/net_control.h"
#include "push/bridge/camera_encoder.h"
#include "support/reference_receiver.h"
#include "support/test_support.h"

#include <QDir>
#include <QFile>
#include <QThreadPool>

#include <gtest/gtest.h>

#include <cstdlib>
#include <iostream>
#include <malloc.h>

using namespace velocast;
using velocast::test::ReferenceReceiver;
using velocast::test::waitUntil;
using namespace std::chrono_literals;

namespace {

struct Usage {
    int fds = 0;
    int threads = 0;
    long rssKb = 0;
    long heapKb = 0; // allocated and not freed
};

// Free memory the allocator still holds is returned before reading.
Usage usage()
{
    ::malloc_trim(0);
    Usage u;
    u.heapKb = long(::mallinfo2().uordblks / 1024);
    u.fds = int(QDir(QStringLiteral("/proc/self/fd")).entryList(QDir::Files | QDir::System | QDir::NoDotAndDotDot).size());
    QFile status(QStringLiteral("/proc/self/status"));
    status.open(QIODevice::ReadOnly);
    for (const QByteArray &line : status.readAll().split('\n')) {
        if (line.startsWith("Threads:")) u.threads = line.mid(8).trimmed().toInt();
        if (line.startsWith("VmRSS:")) u.rssKb = line.mid(6).trimmed().split(' ').value(0).toLong();
    }
    return u;
}

struct PanelView : ConnectionSessionView {
    void reSetTextFields() override { }
    void setLoadingVisible(bool) override { }
    void setTipVisible(bool, const QString &) override { }
    void showCastingPanel(const QString &) override { panel = true; }
    void setCastingPanelName(const QString &) override { }
    void removeCastingPanel() override { panel = false; }
    bool panel = false;
};

enum class Ending { ReceiverCloses, ReceiverEndsCast, UserDisconnects };

TEST(CastSoak, HundredCastsLeaveDescriptorsThreadsAndMemoryFlat)
{
    if (!std::getenv("DISPLAY")) GTEST_SKIP() << "no X display (DISPLAY is not set; scripts/test.sh starts Xvfb)";
    if (!ReferenceReceiver::available()) GTEST_SKIP() << "built without the reference receiver";
    const int cycles = std::getenv("VELOCAST_SOAK_CYCLES") ? std::atoi(std::getenv("VELOCAST_SOAK_CYCLES")) : 100;
    // The warm-up and the run end on the same kind of ending: after the receiver's close
    // the channel's half-closed socket stays until the next connect replaces it.
    int warmUp = std::min(10, cycles / 2);
    while (warmUp > 1 && (warmUp - 1) % 3 != (cycles - 1) % 3) --warmUp;
    // With an arena per streaming thread, freed memory stays scattered over arenas and resident
    // memory climbs while the heap in use stays flat: one arena makes it follow what is alive.
    ::mallopt(M_ARENA_MAX, 1);

    ReferenceReceiver receiver({"--headless"});
    ASSERT_TRUE(receiver.start()) << receiver.error().toStdString();
    NetControl control;
    control.setControlPort(receiver.controlPort());
    control.setLocalIPStr("127.0.0.1");
    PanelView view;
    ConnectionSession session(view, control);
    session.setIpStr("127.0.0.1");
    MacScreenCapture capture;
    capture.setVPort(receiver.mediaPort());
    capture.setAPort(receiver.mediaPort());
    session.setReceiverAddressHandler([&](const QString &ip) { capture.setIpStr(ip); });
    auto &center = NotificationCenter::defaultCenter();

    // Pool threads otherwise come and go with their idle time-out.
    QThreadPool::globalInstance()->setExpiryTimeout(-1);
    Usage base;
    for (int i = 0; i < cycles; ++i) {
        const auto ending = Ending(i % 3);
        const int media = receiver.count("media_connected");
        const int closed = receiver.count("control_closed");
        session.connectWithCode(receiver.code());
        ASSERT_TRUE(waitUntil([&] { return view.panel; }, 10s)) << "cycle " << i;
        center.post(notice::NOTICE_STARTSCREENCAPTURE);
        ASSERT_TRUE(waitUntil([&] { return receiver.count("media_connected") > media; }, 20s)) << "cycle " << i;
        // The cast runs until pictures went out (a short cast: the cycles are what counts).
        const uint64_t sent = capture.sampleCounts().videoForwarded;
        ASSERT_TRUE(waitUntil([&] { return capture.sampleCounts().videoForwarded >= sent + 2; }, 20s)) << "cycle " << i;
        switch (ending) {
        case Ending::ReceiverCloses:
            receiver.command("close");
            break;
        case Ending::ReceiverEndsCast:
            receiver.command("stop");
            ASSERT_TRUE(waitUntil([&] { return !capture.isPutting(); }, 10s)) << "cycle " << i;
            center.post(notice::NOTICE_DISCONNECT);
            break;
        case Ending::UserDisconnects:
            center.post(notice::NOTICE_DISCONNECT);
            break;
        }
        ASSERT_TRUE(waitUntil([&] { return receiver.count("control_closed") > closed; }, 10s)) << "cycle " << i;
        if (ending == Ending::ReceiverCloses) {
            ASSERT_TRUE(waitUntil([&] { return !view.panel; }, 10s)) << "cycle " << i;
        } else {
            view.panel = false; // the panel takes itself off before it posts the disconnect
        }
        ASSERT_TRUE(waitUntil([&] { return !capture.isPutting() && capture.castQueueIdle(); }, 10s)) << "cycle " << i;
        if (auto *enc = capture.cameraEncoder(); enc && enc->h264Encoder()) {
            ASSERT_FALSE(enc->h264Encoder()->hasSession()) << "cycle " << i << ": the ended cast kept its compression session";
        }
        receiver.forgetEvents(); // only this process's memory is measured
        if (i + 1 == warmUp) {
            // Settled: queued releases on the main thread have run.
            velocast::test::spinFor(200ms);
            base = usage();
        }
    }
    // Threads that end with a cast may take a moment to be gone.
    waitUntil([&] { const Usage u = usage(); return u.fds <= base.fds && u.threads <= base.threads; }, 10s);
    const Usage end = usage();
    std::cout << "after " << warmUp << " then " << cycles << " casts: " << base.fds << " then " << end.fds << " descriptors, "
              << base.threads << " then " << end.threads << " threads, " << base.rssKb / 1024 << " then " << end.rssKb / 1024
              << " MB resident, " << base.heapKb / 1024 << " then " << end.heapKb / 1024 << " MB of heap in use" << std::endl;
    EXPECT_EQ(end.fds, base.fds);
    // Idle pool threads may end after the warm-up's reading, never more may run.
    EXPECT_LE(end.threads, base.threads);
    EXPECT_LT(end.rssKb - base.rssKb, 8 * 1024) << "resident memory grew";
    EXPECT_LT(end.heapKb - base.heapKb, 1024) << "heap in use grew";
    EXPECT_EQ(receiver.count("media_connected"), cycles);
}

} // namespace

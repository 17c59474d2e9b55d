// Cost of the control channel's text work: building one framed message, and splitting and
// parsing a full 1024-byte chunk of small messages (the most one read can deliver).
#include "common/notification_center.h"
#include "common/notification_names.h"
#include "control/net_control.h"

#include <QCoreApplication>
#include <QTemporaryDir>

#include <benchmark/benchmark.h>

#include <cstdlib>

using velocast::NetControl;

namespace {

void BM_EnvelopeSerialiseFrame(benchmark::State &state)
{
    const QVariantMap message{{"id", "id_connect_request"},
        {"property", QVariantMap{{"name", QStringLiteral("客厅的电脑")}, {"safe_code", 9}, {"ip", "192.168.1.20"}}}};
    for (auto _ : state) {
        QByteArray framed = NetControl::eventJsonWithDic(message);
        framed.append('#');
        benchmark::DoNotOptimize(framed);
    }
}
BENCHMARK(BM_EnvelopeSerialiseFrame);

void BM_SplitAndParseFullChunk(benchmark::State &state)
{
    NetControl control;
    const QByteArray one = R"({"id":"id_video_pause","property":{"pause":1}}#)";
    QByteArray chunk;
    while (chunk.size() + one.size() <= 1024) chunk += one;
    const int perChunk = int(chunk.size() / one.size());
    int received = 0;
    auto observation = velocast::NotificationCenter::defaultCenter().addObserver(
        velocast::notice::NETCONTROL_RECEIVE, [&](const QVariant &) { ++received; });
    for (auto _ : state) control.postData(chunk);
    state.SetItemsProcessed(int64_t(state.iterations()) * perChunk);
    state.SetBytesProcessed(int64_t(state.iterations()) * chunk.size());
    state.counters["messages_per_chunk"] = perChunk;
    if (received != int(state.iterations()) * perChunk) state.SkipWithError("messages lost");
}
BENCHMARK(BM_SplitAndParseFullChunk);

} // namespace

int main(int argc, char **argv)
{
    QTemporaryDir config;
    setenv("XDG_CONFIG_HOME", config.path().toLocal8Bit().constData(), 1);
    setenv("QT_LOGGING_RULES", "velocast.*.info=false", 1);
    QCoreApplication app(argc, argv);
    benchmark::Initialize(&argc, argv);
    benchmark::RunSpecifiedBenchmarks();
    benchmark::Shutdown();
    return 0;
}

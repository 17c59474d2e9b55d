#include "media_test_support.h"

#include "support/child_process.h"

#include <QFile>
#include <QJsonDocument>
#include <QStandardPaths>

#include <random>

namespace velocast::test {

using capture::MediaSample;
using capture::MediaTime;

MediaSample makeNv12(int width, int height, int index, bool noisy)
{
    std::vector<uint8_t> bytes(size_t(width) * size_t(height) * 3 / 2);
    std::mt19937 rng(uint32_t(index) * 7919u + 1);
    for (int y = 0; y < height; ++y)
        for (int x = 0; x < width; ++x)
            bytes[size_t(y) * size_t(width) + size_t(x)] = uint8_t((x + y + index * 4) & 0xFF) ^ (noisy ? uint8_t(rng() & 0x3F) : 0);
    for (size_t i = size_t(width) * size_t(height); i < bytes.size(); ++i)
        bytes[i] = uint8_t(128 + ((i + size_t(index)) % 32) + (noisy ? (rng() & 0x0F) : 0));
    return MediaSample::rawVideo(capture::bufferFromBytes(bytes), "NV12", width, height,
                                 MediaTime::make(int64_t(index) * 1000, 30000)); // 30 fps in a 30 kHz time base
}

std::vector<NalUnit> splitAnnexB(std::span<const uint8_t> b)
{
    std::vector<size_t> starts;
    for (size_t i = 0; i + 4 <= b.size(); ++i)
        if (b[i] == 0 && b[i + 1] == 0 && b[i + 2] == 0 && b[i + 3] == 1) starts.push_back(i);
    std::vector<NalUnit> units;
    for (size_t k = 0; k < starts.size(); ++k) {
        const size_t begin = starts[k] + 4;
        const size_t end = k + 1 < starts.size() ? starts[k + 1] : b.size();
        units.push_back({begin < b.size() ? b[begin] & 0x1F : -1, begin, end - begin});
    }
    return units;
}

bool encodePaced(capture::H264HWEncoder &encoder, PacketCollector &out, int width, int height, int count, int firstIndex, bool noisy)
{
    const size_t base = out.count();
    for (int i = 0; i < count; ++i) {
        encoder.encode(makeNv12(width, height, firstIndex + i, noisy));
        if (!out.waitFor(base + size_t(i) + 1)) return false;
    }
    return true;
}

bool writePackets(const QString &path, const std::vector<EncodedPacket> &packets)
{
    QFile f(path);
    if (!f.open(QIODevice::WriteOnly)) return false;
    for (const auto &p : packets)
        if (f.write(reinterpret_cast<const char *>(p.bytes.data()), qint64(p.bytes.size())) != qint64(p.bytes.size())) return false;
    return true;
}

bool haveFfprobe() { return !QStandardPaths::findExecutable("ffprobe").isEmpty(); }

// Its complaints go to the test's own error output.
static QJsonObject runFfprobe(const QStringList &args)
{
    const auto out = ChildProcess::run("ffprobe", args);
    return out ? QJsonDocument::fromJson(*out).object() : QJsonObject{{"error", "ffprobe failed"}};
}

QJsonObject ffprobeStream(const QString &file, const QString &entries)
{
    const QJsonObject o = runFfprobe({"-v", "error", "-count_frames", "-show_entries", "stream=" + entries, "-of", "json", file});
    return o.contains("error") ? o : o.value("streams").toArray().first().toObject();
}

} // namespace velocast::test

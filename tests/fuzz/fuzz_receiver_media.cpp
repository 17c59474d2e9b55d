// The reference receiver's media side: "4CVA" records over TCP (cut into reads of any size)
// with the access-unit checks and the SPS reader, and audio datagrams with their ADTS frames.
#include "media_checks.h"


using namespace velocast::receiver;

extern "C" int LLVMFuzzerTestOneInput(const uint8_t *data, size_t size)
{
    if (size == 0) return 0;
    const char *bytes = reinterpret_cast<const char *>(data) + 1;
    const qsizetype n = qsizetype(size - 1);
    Issues issues;
    if (data[0] & 1) {
        // Datagrams: the next byte gives each one's length.
        AudioDatagramChecker audio;
        QList<QByteArray> frames;
        for (qsizetype at = 0; at < n;) {
            const qsizetype len = std::min<qsizetype>(n - at - 1, uint8_t(bytes[at]) * 8);
            if (len < 0) break;
            audio.feed(bytes + at + 1, len, &frames, &issues);
            at += 1 + len;
        }
        (void)audio.report();
        return 0;
    }
    VideoRecordParser parser(1 << 20);
    VideoChecker checker;
    QList<VideoRecordParser::Record> records;
    const qsizetype step = 1 + (data[0] >> 1);
    for (qsizetype at = 0; at < n; at += step) parser.feed(bytes + at, std::min(step, n - at), &records, &issues);
    parser.finish(&issues);
    qint64 t = 0;
    for (const auto &r : records) checker.check(r.payload, r.header.keyFlag != 0, t += 33, &issues);
    (void)checker.report();
    (void)parseSps(bytes, n);
    return 0;
}

// The reference receiver's control side: framing at "#" with its size cap, then parsing.
#include "control_framing.h"


using namespace velocast::receiver;

extern "C" int LLVMFuzzerTestOneInput(const uint8_t *data, size_t size)
{
    MessageFramer framer(4096);
    // Reads of any size: the first byte picks the cut.
    const size_t step = size ? 1 + data[0] % 64 : 1;
    for (size_t at = 0; at < size; at += step) {
        const QByteArray piece(reinterpret_cast<const char *>(data) + at, qsizetype(std::min(step, size - at)));
        for (const QByteArray &message : framer.feed(piece)) {
            const ParseResult r = parseMessage(message);
            if (r.ok()) (void)lenientInt(r.message.property, QStringLiteral("type"));
        }
    }
    (void)isValidUtf8(QByteArray(reinterpret_cast<const char *>(data), qsizetype(size)));
    return 0;
}

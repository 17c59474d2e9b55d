// The avcC record reader and the AVCC to Annex-B walk.
#include "capture/avc_config.h"
#include "capture/h264_packet.h"

#include <vector>

extern "C" int LLVMFuzzerTestOneInput(const uint8_t *data, size_t size)
{
    const std::span<const uint8_t> bytes(data, size);
    // What we build from what we read reads back the same, for sets the builder takes (an SPS
    // with its header bytes, a non-empty PPS); it refuses the others.
    const auto config = velocast::capture::parseAvcDecoderConfig(bytes);
    if (config && !config->sps.empty() && !config->pps.empty()) {
        const auto &sps = config->sps.front();
        const auto &pps = config->pps.front();
        const auto rebuilt = velocast::capture::buildAvcDecoderConfig(sps, pps);
        const auto again = velocast::capture::parseAvcDecoderConfig(rebuilt);
        const bool takes = sps.size() >= 4 && !pps.empty();
        using Sets = decltype(config->sps);
        if (takes && (!again || again->sps != Sets{sps} || again->pps != Sets{pps} || again->nalLengthSize != 4))
            __builtin_trap();
        if (!takes && !rebuilt.empty()) __builtin_trap();
    }
    std::vector<uint8_t> out;
    (void)velocast::capture::H264Packet::appendAnnexB(bytes, out);
    return 0;
}

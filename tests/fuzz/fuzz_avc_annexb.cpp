// The avcC record reader and the AVCC to Annex-B walk.
#include "capture/avc_config.h"
#include "capture/h264_packet.h"

#include <cstddef>
#include <cstdint>
#include <span>
#include <vector>

extern "C" int LLVMFuzzerTestOneInput(const uint8_t *data, size_t size)
{
    const std::span<const uint8_t> bytes(data, size);
    if (const auto config = velocast::capture::parseAvcDecoderConfig(bytes)) {
        // What we build from what we read must read back the same. Only for sets the builder
        // takes: an SPS with its header bytes and a PPS of at least its NAL header (a record
        // may carry an empty set, which is no NAL unit; the builder refuses it).
        if (!config->sps.empty() && !config->pps.empty()) {
            const auto &sps = config->sps.front();
            const auto &pps = config->pps.front();
            const auto rebuilt = velocast::capture::buildAvcDecoderConfig(sps, pps);
            if (sps.size() >= 4 && !pps.empty()) {
                const auto again = velocast::capture::parseAvcDecoderConfig(rebuilt);
                if (!again || again->sps.size() != 1 || again->pps.size() != 1 || again->sps.front() != sps ||
                    again->pps.front() != pps || again->nalLengthSize != 4)
                    __builtin_trap();
            } else if (!rebuilt.empty()) {
                __builtin_trap();
            }
        }
    }
    std::vector<uint8_t> out;
    (void)velocast::capture::H264Packet::appendAnnexB(bytes, out);
    return 0;
}

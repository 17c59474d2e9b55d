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
        if (!config->sps.empty() && !config->pps.empty())
            (void)velocast::capture::buildAvcDecoderConfig(config->sps.front(), config->pps.front());
    }
    std::vector<uint8_t> out;
    (void)velocast::capture::H264Packet::appendAnnexB(bytes, out);
    return 0;
}

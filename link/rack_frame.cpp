#include "link/rack_frame.h"

#include <cstring>

const uint8_t RackFrame::resetFrame[5] = {0x55, 0x00, 0x00, 0xF0, 0xBB};
const uint8_t RackFrame::enumerateFrame[5] = {0x55, 0x00, 0x00, 0xC1, 0xEA};
const uint8_t RackFrame::statusCollectedFrame[5] = {0x55, 0x00, 0x00, 0xC2, 0xE9};

bool frameTellsOfLostCard(const uint8_t* frame, uint32_t size)
{
    if (size <= 3 || frame[3] == RackFrame::extendedMarker) return false;
    const uint8_t status = frameStatus(frame);
    return status == RackFrame::statusNoCard || status == RackFrame::statusMute;
}

uint8_t frameChecksum(const uint8_t* bytes, uint32_t count)
{
    uint32_t sum = 0;
    for (uint32_t i = 0; i < count; ++i) sum += bytes[i];
    return static_cast<uint8_t>(256 - (sum & 0xFF));
}

uint32_t wrapFrame(uint8_t* buffer, uint32_t payloadSize, uint8_t address)
{
    std::memmove(buffer + 3, buffer, payloadSize);
    buffer[0] = RackFrame::sync;
    buffer[1] = address;
    buffer[2] = static_cast<uint8_t>(payloadSize - 1);
    buffer[payloadSize + 3] = frameChecksum(buffer, payloadSize + 3);
    return payloadSize + 4;
}

uint32_t receivedFrameSize(const uint8_t* head)
{
    if (head[3] == RackFrame::extendedMarker) return head[2] + 256u * head[4] + 6;
    return head[2] + 5u;
}

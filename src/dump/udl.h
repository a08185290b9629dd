// Upload/download protocol between the AP and the CP boot loader: command
// words, stage numbers and the messages the CP uploads on the dump node.
// Every word on the wire is a 32-bit little-endian value with its upper 16
// bits zero: direction marker in bits 15..12, stage in bits 11..8, code or
// step number in bits 7..0. Stage and step are combined with OR, unmasked.
#pragma once

#include <cstddef>
#include <cstdint>

namespace udl {

// Direction markers.
inline constexpr uint32_t kRequest = 0x9000;   // written by the AP
inline constexpr uint32_t kResponse = 0xA000;  // answered or uploaded by the CP

// Codes of the low byte; inside the dump stage 1, 2, ... are step numbers.
inline constexpr uint32_t kStart = 0x00;
inline constexpr uint32_t kDone = 0x0D;

// Stages in use.
inline constexpr uint32_t kStageHandshake = 0;
inline constexpr uint32_t kStageDump = 13;
inline constexpr uint32_t kStageFinish = 15;

// Word builders, exactly as the AP and the CP put them together.
constexpr uint32_t stage_start_request(uint32_t stage) {
    return kRequest | (stage << 8) | kStart;
}
constexpr uint32_t stage_start_response(uint32_t stage) {
    return kResponse | (stage << 8) | kStart;
}
constexpr uint32_t stage_done_request(uint32_t stage) {
    return kRequest | (stage << 8) | kDone;
}
constexpr uint32_t stage_done_response(uint32_t stage) {
    return kResponse | (stage << 8) | kDone;
}
constexpr uint32_t dump_step_request(uint32_t step) {
    return kRequest | (kStageDump << 8) | step;
}
constexpr uint32_t dump_step_command(uint32_t step) {
    return kResponse | (kStageDump << 8) | step;
}

static_assert(stage_done_request(kStageHandshake) == 0x900D);
static_assert(stage_done_response(kStageHandshake) == 0xA00D);
static_assert(stage_start_request(kStageFinish) == 0x9F00);
static_assert(stage_start_response(kStageFinish) == 0xAF00);
static_assert(stage_start_request(kStageDump) == 0x9D00);
static_assert(stage_start_response(kStageDump) == 0xAD00);
static_assert(stage_done_request(kStageDump) == 0x9D0D);
static_assert(stage_done_response(kStageDump) == 0xAD0D);
// Step 13 of the dump stage and the stage's DONE share one word.
static_assert(dump_step_request(13) == stage_done_request(kStageDump));

// The steps a dump may announce: the step number has 8 bits.
inline constexpr uint32_t kMaxDumpSteps = 255;

// Every wait for the CP is one poll of this length before the read.
inline constexpr int kPollTimeoutMs = 30000;

// INFO: the first upload after the dump stage's START answer, 12 bytes.
struct ul_info {
    uint32_t dump_size;   // payload bytes that all steps deliver together
    uint32_t num_steps;   // steps to request
    uint32_t reason_len;  // bytes of the REASON upload that follows
};
static_assert(sizeof(ul_info) == 12);
static_assert(offsetof(ul_info, dump_size) == 0);
static_assert(offsetof(ul_info, num_steps) == 4);
static_assert(offsetof(ul_info, reason_len) == 8);

// Header of a data frame; one read returns the header and its payload.
struct ul_frame_header {
    uint32_t command;     // kResponse | stage << 8 | step
    uint32_t num_frames;  // frames in this step
    uint32_t curr_frame;  // sequence number within the step, from 1
    uint32_t size;        // payload bytes that follow, at most kMaxFramePayload
};
static_assert(sizeof(ul_frame_header) == 16);
static_assert(offsetof(ul_frame_header, command) == 0);
static_assert(offsetof(ul_frame_header, num_frames) == 4);
static_assert(offsetof(ul_frame_header, curr_frame) == 8);
static_assert(offsetof(ul_frame_header, size) == 12);

inline constexpr size_t kMaxFramePayload = 16384;
inline constexpr size_t kFrameHeaderSize = sizeof(ul_frame_header);

// A whole frame as the receiver reads it: 16400 bytes at most.
struct std_ul_frame {
    ul_frame_header header;
    uint8_t payload[kMaxFramePayload];
};
static_assert(sizeof(std_ul_frame) == 16400);
static_assert(offsetof(std_ul_frame, header) == 0);
static_assert(offsetof(std_ul_frame, payload) == 16);
inline constexpr size_t kMaxFrameSize = sizeof(std_ul_frame);

// Log regions arrive as plain chunks of at most this many bytes per read.
inline constexpr size_t kLogChunkSize = 4096;

// Image parts are sent to the driver in chunks of this size.
inline constexpr size_t kImageChunkSize = 63488;

}  // namespace udl

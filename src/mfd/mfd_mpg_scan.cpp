// Program stream walk: pack headers, system headers and PES packets from the
// start of the file, and time stamps from its end.
#include "mfd/mfd_mpg_scan.h"

#include <algorithm>
#include <array>
#include <vector>

#include "mfd/mfd_api.h"
#include "mfd/mfd_reader.h"
#include "util/osal_trace.h"

[[maybe_unused]] static constexpr char kTraceFile[] = "mfd_mpg_scan.c";

namespace {

constexpr int kMaxPackets = 512;            // packets looked at from the start
constexpr size_t kMaxResyncBytes = 4096;    // junk passed over to find a start code
constexpr size_t kVideoBytesWanted = 1024;  // video bytes kept from the sequence header on
constexpr size_t kAudioBytesLooked = 1024;  // audio bytes searched for a frame header
constexpr size_t kPacketBytesRead = 4096;   // of a packet; the rest is passed over
constexpr int64_t kTailBytes = 65536;       // end of the file searched for time stamps

constexpr uint32_t kPackCode = 0xBA;
constexpr uint32_t kSystemHeaderCode = 0xBB;
constexpr uint32_t kEndCode = 0xB9;
constexpr uint32_t kPrivateStream1 = 0xBD;
constexpr uint8_t kSequenceHeaderCode = 0xB3;

struct ScanState {
  explicit ScanState(mfdPsFindings &findings) : found(findings) {}
  mfdPsFindings &found;
  std::vector<uint8_t> packet;      // the current PES packet, start code included
  std::vector<uint8_t> videoBytes;  // video payload, from a sequence header on once one is met
  bool sequenceStart = false;
  bool mpegAudioSeen = false;
  bool hasFirstPts = false;
  uint64_t firstPts = 0;
  std::array<bool, 256> streamsSeen{};
};

// Reads on to the next start code and gives its last byte; -1 when none
// comes within the allowance or the file (or the block limit) ends.
int32_t nextStartCode() {
  uint32_t window = 0xFFFFFFFF;
  for (size_t count = 0; count < kMaxResyncBytes + 4; ++count) {
    uint32_t byte = 0;
    if (mfd_getDataBits(&byte, 8) != 0) return -1;
    window = window << 8 | byte;
    if ((window & 0xFFFFFF00u) == 0x00000100u) return static_cast<int32_t>(window & 0xFFu);
  }
  return -1;
}

// The rest of a pack header whose start code was just read.
bool readPack(ScanState &state, int packets) {
  std::array<uint8_t, 14> bytes{0, 0, 1, kPackCode};
  if (mfdVideo_readBytes(bytes.data() + 4, 8) != 0) return false;
  const bool mpeg2 = (bytes[4] & 0xC0) == 0x40;
  if (mpeg2 && mfdVideo_readBytes(bytes.data() + 12, 2) != 0) return false;
  mfdPackHeader pack;
  if (!mfdMpg_parsePackHeader(bytes.data(), mpeg2 ? 14 : 12, pack)) return false;
  if (packets == 0) {
    state.found.mpeg1Packs = pack.mpeg1;
    state.found.muxRate = pack.muxRate;
  }
  return mfdVideo_seek(mfd_currentFilePosition() + static_cast<int64_t>(pack.size) - (mpeg2 ? 14 : 12)) == 0;
}

void takeVideo(ScanState &state, const uint8_t *payload, size_t size) {
  mfdPsFindings &found = state.found;
  found.videoSeen = true;
  if (found.videoParsed) return;
  std::vector<uint8_t> &bytes = state.videoBytes;
  bytes.insert(bytes.end(), payload, payload + std::min(size, kVideoBytesWanted));
  while (!found.videoParsed) {
    if (!state.sequenceStart) {
      size_t index = mfdVideo_findStartCode(bytes.data(), bytes.size(), 0);
      while (index + 4 <= bytes.size() && bytes[index + 3] != kSequenceHeaderCode) {
        index = mfdVideo_findStartCode(bytes.data(), bytes.size(), index + 3);
      }
      if (index + 4 > bytes.size()) {
        // Keep what could be the beginning of a start code split by packets.
        bytes.erase(bytes.begin(), bytes.end() - std::min<size_t>(bytes.size(), 3));
        return;
      }
      bytes.erase(bytes.begin(), bytes.begin() + static_cast<std::ptrdiff_t>(index));
      state.sequenceStart = true;
    }
    if (bytes.size() < kVideoBytesWanted) return;
    found.videoParsed = mfdVideo_parseMpegSequence(bytes.data() + 4, bytes.size() - 4, found.video);
    if (!found.videoParsed) {  // not a real one: look for the next
      bytes.erase(bytes.begin(), bytes.begin() + 4);
      state.sequenceStart = false;
    }
  }
}

// The audio codec of the first audio stream, by stream id and payload.
void takeAudio(ScanState &state, uint32_t streamId, const uint8_t *payload, size_t size) {
  mfdPsFindings &found = state.found;
  if (found.audioCodec != 0 || size == 0) return;
  if (streamId == kPrivateStream1) {
    // DVD substreams: 0x80-0x87 AC3, 0x88-0x8F DTS, 0xA0-0xA7 LPCM;
    // 0x20-0x3F are subpictures.  A bare AC3 sync word counts as AC3.
    const uint8_t substream = payload[0];
    if ((substream >= 0x80 && substream <= 0x87) || (size >= 2 && substream == 0x0B && payload[1] == 0x77)) {
      found.audioCodec = MFD_FORMAT_AC3;
    } else if (substream >= 0x88 && substream <= 0x8F) {
      found.audioCodec = MFD_CODEC_OTHER;
    } else if (substream >= 0xA0 && substream <= 0xA7) {
      found.audioCodec = MFD_FORMAT_LPCM;
    }
    return;
  }
  state.mpegAudioSeen = true;
  found.audioCodec = mfdVideo_mpegAudioCodec(payload, std::min(size, kAudioBytesLooked));
}

void takePacket(ScanState &state) {
  mfdPesHeader header;
  const std::vector<uint8_t> &packet = state.packet;
  if (!mfdVideo_parsePesHeader(packet.data(), packet.size(), state.found.mpeg1Packs, header) ||
      !mfdVideo_isMediaStream(header.streamId) || header.payloadOffset > packet.size()) {
    return;
  }
  state.streamsSeen[header.streamId] = true;
  if (header.hasPts && (!state.hasFirstPts || header.pts < state.firstPts)) {
    state.firstPts = header.pts;
    state.hasFirstPts = true;
  }
  const uint8_t *payload = packet.data() + header.payloadOffset;
  const size_t size = packet.size() - header.payloadOffset;
  if (header.streamId >= 0xE0) {
    takeVideo(state, payload, size);
  } else {
    takeAudio(state, header.streamId, payload, size);
  }
}

// Reads one PES packet (its first bytes) or system header after its start
// code and moves past it; false when the file cannot be read on.
bool readPacket(ScanState &state, uint32_t code) {
  std::array<uint8_t, 2> lengthBytes{};
  if (mfdVideo_readBytes(lengthBytes.data(), 2) != 0) return false;
  const uint32_t length = mfdVideo_be16(lengthBytes.data());
  const int64_t end = mfd_currentFilePosition() + length;
  if (code != kSystemHeaderCode && mfdVideo_isMediaStream(code)) {
    const size_t taken = std::min<size_t>(length, kPacketBytesRead);
    state.packet.assign({0, 0, 1, static_cast<uint8_t>(code), lengthBytes[0], lengthBytes[1]});
    state.packet.resize(6 + taken);
    if (mfdVideo_readBytes(state.packet.data() + 6, taken) != 0) return false;
    takePacket(state);
  }
  return mfdVideo_seek(end) == 0;
}

bool scanDone(const ScanState &state) {
  return state.found.videoParsed && state.found.audioCodec != 0 && state.hasFirstPts;
}

// The largest span from the first time stamp to one in the file's last
// bytes, for the streams met at the start.
uint32_t tailDuration(const ScanState &state, int64_t fileSize) {
  if (!state.hasFirstPts || fileSize <= 0) return 0;
  if (mfdVideo_seek(std::max<int64_t>(0, fileSize - kTailBytes)) != 0) return 0;
  std::vector<uint8_t> tail;
  mfdVideo_readAvailable(tail, kTailBytes);
  uint32_t duration = 0;
  for (size_t index = mfdVideo_findStartCode(tail.data(), tail.size(), 0); index + 4 <= tail.size();
       index = mfdVideo_findStartCode(tail.data(), tail.size(), index + 3)) {
    mfdPesHeader header;
    if (!state.streamsSeen[tail[index + 3]] ||
        !mfdVideo_parsePesHeader(tail.data() + index, tail.size() - index, state.found.mpeg1Packs,
                                 header) ||
        !header.hasPts) {
      continue;
    }
    duration = std::max(duration, mfdVideo_ptsSpanMs(state.firstPts, header.pts));
  }
  return duration;
}

}  // namespace

bool mfdMpg_parsePackHeader(const uint8_t *bytes, size_t size, mfdPackHeader &pack) {
  pack = mfdPackHeader{};
  if (size < 12 || bytes[0] != 0 || bytes[1] != 0 || bytes[2] != 1 || bytes[3] != kPackCode) {
    return false;
  }
  if ((bytes[4] & 0xC4) == 0x44) {  // MPEG-2: '01', clock reference and extension
    if (size < 14 || (bytes[6] & 0x04) == 0 || (bytes[8] & 0x04) == 0 || (bytes[9] & 0x01) == 0 ||
        (bytes[12] & 0x03) != 0x03) {
      return false;
    }
    pack.muxRate = mfdVideo_be24(bytes + 10) >> 2;
    pack.size = 14 + (bytes[13] & 0x07u);
    return pack.muxRate != 0;
  }
  if ((bytes[4] & 0xF1) == 0x21) {  // MPEG-1: '0010', clock reference
    if ((bytes[6] & 0x01) == 0 || (bytes[8] & 0x01) == 0 || (bytes[9] & 0x80) == 0 ||
        (bytes[11] & 0x01) == 0) {
      return false;
    }
    pack.mpeg1 = true;
    pack.muxRate = (mfdVideo_be24(bytes + 9) & 0x7FFFFFu) >> 1;
    pack.size = 12;
    return pack.muxRate != 0;
  }
  return false;
}

int32_t mfdMpg_muxRateKbit(uint32_t muxRate) {
  return static_cast<int32_t>(uint64_t{muxRate} * 50 * 8 / 1000);
}

void mfdMpg_scanProgramStream(int64_t fileSize, mfdPsFindings &found) {
  ScanState state(found);
  if (mfdVideo_seek(0) != 0) return;
  for (int packets = 0; packets < kMaxPackets && !scanDone(state); ++packets) {
    const int32_t code = nextStartCode();
    if (code < 0 || static_cast<uint32_t>(code) == kEndCode) break;
    const uint32_t startCode = static_cast<uint32_t>(code);
    bool readOn = true;
    if (startCode == kPackCode) {
      readOn = readPack(state, packets);
    } else if (startCode >= kSystemHeaderCode) {
      readOn = readPacket(state, startCode);
    }
    if (!readOn) break;
  }
  if (!found.videoParsed && state.sequenceStart && state.videoBytes.size() > 4) {
    found.videoParsed = mfdVideo_parseMpegSequence(state.videoBytes.data() + 4,
                                                   state.videoBytes.size() - 4, found.video);
  }
  if (found.audioCodec == 0 && state.mpegAudioSeen) found.audioCodec = MFD_FORMAT_MP2;
  found.duration = tailDuration(state, fileSize);
}

// The header parsers and profile choices of the video and container
// detectors, on hand-made bytes: MPEG-2 sequence and display extensions,
// H.264 parameter sets, MPEG-4 video object layers, PES headers, transport
// packet layouts, the WMA/WMV profile limits and the MP4 profile limits.
#include <gtest/gtest.h>

#include <string>

#include "mfd/mfd_api.h"
#include "mfd/mfd_asf.h"
#include "mfd/mfd_mpts_psi.h"
#include "mfd/mfd_video.h"
#include "mfd_audio_test_support.h"
#include "mfd_video_test_support.h"

namespace {

using mfdtest::BitWriter;
using mfdtest::Bytes;
using mfdtest::Detection;
using mfdtest::ScratchDir;
using namespace mfdvideotest;

// ---------------------------------------------------------------- MPEG-1/2 video

// Sequence header fields (after 00 00 01 B3) for a picture of the given size.
Bytes sequenceHeader(uint32_t width, uint32_t height, uint32_t bitRateValue = 0x3FFFF) {
  BitWriter writer;
  writer.put(width, 12);
  writer.put(height, 12);
  writer.put(2, 4);  // 4:3
  writer.put(3, 4);  // 25 frames/s
  writer.put(bitRateValue, 18);
  writer.put(1, 1);
  writer.put(112, 10);
  writer.put(0, 3);  // constrained, no matrices
  return writer.bytes();
}

Bytes startCode(int code) { return {0, 0, 1, static_cast<uint8_t>(code)}; }

Bytes sequenceExtension() {
  return concat({startCode(0xB5), {0x14, 0x8A, 0x00, 0x01, 0x00, 0x00}});
}

Bytes displayExtension(uint32_t videoFormat) {
  BitWriter writer;
  writer.put(2, 4);
  writer.put(videoFormat, 3);
  writer.put(0, 1);  // no colour description
  writer.put(720, 14);
  writer.put(1, 1);
  writer.put(576, 14);
  writer.put(0, 3);
  return concat({startCode(0xB5), writer.bytes()});
}

TEST(MfdVideoParsersTest, MpegSequenceWithExtensions) {
  const Bytes bytes = concat({sequenceHeader(720, 576, 15000), sequenceExtension(),
                              displayExtension(1), startCode(0xB8), Bytes(8)});
  mfdMpegVideoInfo info;
  ASSERT_TRUE(mfdVideo_parseMpegSequence(bytes.data(), bytes.size(), info));
  EXPECT_TRUE(info.mpeg2);
  EXPECT_EQ(720, info.width);
  EXPECT_EQ(576, info.height);
  EXPECT_EQ(1, info.videoFormat);
  EXPECT_EQ(15000u * 400, info.bitRate);
}

TEST(MfdVideoParsersTest, MpegSequenceWithoutExtensionIsMpeg1) {
  const Bytes bytes = concat({sequenceHeader(352, 240), startCode(0xB8), Bytes(8)});
  mfdMpegVideoInfo info;
  ASSERT_TRUE(mfdVideo_parseMpegSequence(bytes.data(), bytes.size(), info));
  EXPECT_FALSE(info.mpeg2);
  EXPECT_EQ(-1, info.videoFormat);
  EXPECT_EQ(0u, info.bitRate);  // variable
}

TEST(MfdVideoParsersTest, MpegSequenceMustBeFollowedByAStartCode) {
  Bytes bytes = concat({sequenceHeader(352, 240), {0x12, 0x34, 0x56, 0x78}});
  mfdMpegVideoInfo info;
  EXPECT_FALSE(mfdVideo_parseMpegSequence(bytes.data(), bytes.size(), info));
  bytes = concat({sequenceHeader(0, 240), startCode(0xB8)});
  EXPECT_FALSE(mfdVideo_parseMpegSequence(bytes.data(), bytes.size(), info));
  bytes = sequenceHeader(352, 240);  // cut right after the header
  EXPECT_FALSE(mfdVideo_parseMpegSequence(bytes.data(), bytes.size(), info));
}

// Program streams: pack, then one video packet with the sequence header.
Bytes programStream(uint32_t videoFormat) {
  Bytes pack = {0, 0, 1, 0xBA, 0x44, 0, 0x04, 0, 0x04, 0x01, 0x01, 0x89, 0xC3, 0xF8};
  Bytes es = concat({startCode(0xB3), sequenceHeader(720, 576), sequenceExtension(),
                     displayExtension(videoFormat), startCode(0xB8), Bytes(1100)});
  Bytes packet = {0, 0, 1, 0xE0};
  appendBe16(packet, static_cast<uint32_t>(3 + es.size()));
  append(packet, {0x80, 0x00, 0x00});
  return concat({pack, packet, es, {0, 0, 1, 0xB9}});
}

TEST(MfdVideoParsersTest, ProgramStreamIsPalOnlyForVideoFormatOne) {
  for (uint32_t videoFormat : {0u, 1u, 2u, 3u, 5u}) {
    ScratchDir scratch;
    Detection detection;
    mfdMediaInfo info{};
    ASSERT_EQ(0, detection.detect(scratch.write("v.mpg", programStream(videoFormat)), info));
    EXPECT_EQ(static_cast<uint32_t>(MFD_FORMAT_MPEG_PS), info.formatId);
    EXPECT_EQ(videoFormat == 1 ? 2u : 1u, info.profileCode) << videoFormat;
    EXPECT_EQ(14u, info.videoCodec);
    EXPECT_EQ(720, info.videoWidth);
  }
}

// ---------------------------------------------------------------- H.264

// A sequence parameter set NAL unit (profile 100 with the High fields), with
// cropping at the bottom.
Bytes spsNal(uint32_t profile, uint32_t widthMbs, uint32_t heightMbs, uint32_t cropBottom,
             uint32_t constraints = 0) {
  GolombWriter writer;
  writer.bits(0x67, 8);  // NAL header, type 7
  writer.bits(profile, 8);
  writer.bits(constraints, 8);
  writer.bits(30, 8);  // level
  writer.ue(0);
  if (profile == 100) {
    writer.ue(1);  // 4:2:0
    writer.ue(0);
    writer.ue(0);
    writer.bits(0, 1);
    writer.bits(0, 1);
  }
  writer.ue(0);  // frame number bits
  writer.ue(0);  // picture order type 0
  writer.ue(2);
  writer.ue(1);  // reference frames
  writer.bits(0, 1);
  writer.ue(widthMbs - 1);
  writer.ue(heightMbs - 1);
  writer.bits(1, 1);  // frames only
  writer.bits(1, 1);
  writer.bits(cropBottom != 0 ? 1 : 0, 1);
  if (cropBottom != 0) {
    writer.ue(0);
    writer.ue(0);
    writer.ue(0);
    writer.ue(cropBottom);
  }
  writer.bits(0, 1);  // no VUI
  return writer.finish();
}

TEST(MfdVideoParsersTest, AvcParameterSetGivesTheCroppedSize) {
  mfdAvcInfo info;
  const Bytes high = spsNal(100, 120, 68, 4);
  ASSERT_TRUE(mfdVideo_parseAvcSps(high.data(), high.size(), info));
  EXPECT_EQ(1920, info.width);
  EXPECT_EQ(1080, info.height);
  EXPECT_EQ(100u, info.profileIdc);
  EXPECT_FALSE(mfdVideo_isAvcBaseline(info));
  const Bytes baseline = spsNal(66, 20, 15, 0);
  ASSERT_TRUE(mfdVideo_parseAvcSps(baseline.data(), baseline.size(), info));
  EXPECT_EQ(320, info.width);
  EXPECT_EQ(240, info.height);
  EXPECT_TRUE(mfdVideo_isAvcBaseline(info));
  // Main profile marked as keeping the Baseline constraints.
  const Bytes constrained = spsNal(77, 20, 15, 0, 0x80);
  ASSERT_TRUE(mfdVideo_parseAvcSps(constrained.data(), constrained.size(), info));
  EXPECT_TRUE(mfdVideo_isAvcBaseline(info));
}

TEST(MfdVideoParsersTest, AvcParameterSetInAByteStream) {
  const Bytes stream = concat({{0, 0, 0, 1, 0x09, 0xF0}, {0, 0, 0, 1}, spsNal(66, 22, 18, 0),
                               {0, 0, 1, 0x68, 0xCE, 0x38, 0x80}});
  mfdAvcInfo info;
  ASSERT_TRUE(mfdVideo_findAvcSps(stream.data(), stream.size(), info));
  EXPECT_EQ(352, info.width);
  EXPECT_EQ(288, info.height);
  // Cut: no parameter set to be had, and nothing read beyond the bytes.
  for (size_t cut = 0; cut < stream.size(); ++cut) {
    const Bytes part(stream.begin(), stream.begin() + static_cast<std::ptrdiff_t>(cut));
    mfdVideo_findAvcSps(part.data(), part.size(), info);
  }
}

TEST(MfdVideoParsersTest, AvcParameterSetRejectsOverlongCodes) {
  const Bytes zeros = concat({{0x67, 66, 0, 30}, Bytes(40, 0)});
  mfdAvcInfo info;
  EXPECT_FALSE(mfdVideo_parseAvcSps(zeros.data(), zeros.size(), info));
  const Bytes notSps = concat({{0x68, 66, 0, 30}, Bytes(40, 0xFF)});
  EXPECT_FALSE(mfdVideo_parseAvcSps(notSps.data(), notSps.size(), info));
}

// ---------------------------------------------------------------- MPEG-4 part 2

Bytes volHeader(uint32_t width, uint32_t height, uint32_t resolution, bool goodMarkers = true) {
  BitWriter writer;
  writer.put(0, 1);
  writer.put(1, 8);  // simple object
  writer.put(0, 1);  // no layer identifier
  writer.put(1, 4);  // square pixels
  writer.put(0, 1);  // no control parameters
  writer.put(0, 2);  // rectangular
  writer.put(1, 1);
  writer.put(resolution, 16);
  writer.put(1, 1);
  writer.put(1, 1);  // fixed rate
  int bits = 1;
  while ((1u << bits) < resolution) ++bits;
  writer.put(1, bits);
  writer.put(1, 1);
  writer.put(width, 13);
  writer.put(goodMarkers ? 1 : 0, 1);
  writer.put(height, 13);
  writer.put(1, 1);
  writer.put(0, 8);
  return writer.bytes();
}

TEST(MfdVideoParsersTest, VideoObjectLayerGivesTheSize) {
  mfdMpeg4VolInfo info;
  for (uint32_t resolution : {1u, 2u, 25u, 30000u, 65535u}) {
    const Bytes vol = volHeader(640, 360, resolution);
    ASSERT_TRUE(mfdVideo_parseMpeg4Vol(vol.data(), vol.size(), info)) << resolution;
    EXPECT_EQ(640, info.width);
    EXPECT_EQ(360, info.height);
  }
  const Bytes bad = volHeader(640, 360, 25, false);
  EXPECT_FALSE(mfdVideo_parseMpeg4Vol(bad.data(), bad.size(), info));
}

TEST(MfdVideoParsersTest, ElementaryMpeg4NeedsItsStartCodeFirst) {
  ScratchDir scratch;
  const Bytes vol = volHeader(320, 240, 25);
  const Bytes good = concat({startCode(0xB0), {0x01}, startCode(0x00), startCode(0x20), vol});
  mfdtest::DetectorRun run =
      mfdtest::runDetector(mediaFormatM4vDetect, 15, scratch.write("a.m4v", good));
  EXPECT_EQ(static_cast<uint32_t>(MFD_FORMAT_MPEG4_PART2), run.info.formatId);
  EXPECT_EQ(240, run.info.videoHeight);
  const Bytes late = concat({{'R', 'I', 'F', 'F'}, startCode(0x20), vol});
  run = mfdtest::runDetector(mediaFormatM4vDetect, 15, scratch.write("b.m4v", late));
  EXPECT_EQ(0u, run.info.mediaClass);
}

// ---------------------------------------------------------------- PES, transport packets

TEST(MfdVideoParsersTest, PesHeadersOfBothSyntaxes) {
  const Bytes mpeg2 = {0, 0, 1, 0xE0, 0, 0, 0x80, 0x80, 5, 0x21, 0x00, 0x07, 0xD8, 0x61};
  mfdPesHeader header;
  ASSERT_TRUE(mfdVideo_parsePesHeader(mpeg2.data(), mpeg2.size(), false, header));
  EXPECT_TRUE(header.hasPts);
  EXPECT_EQ(126000u, header.pts);
  EXPECT_EQ(14u, header.payloadOffset);
  const Bytes mpeg1 = {0, 0, 1, 0xC0, 0, 20, 0xFF, 0xFF, 0x40, 0x20, 0x21, 0x00, 0x07, 0xD8, 0x61};
  ASSERT_FALSE(mfdVideo_parsePesHeader(mpeg1.data(), mpeg1.size(), false, header));
  ASSERT_TRUE(mfdVideo_parsePesHeader(mpeg1.data(), mpeg1.size(), true, header));
  EXPECT_EQ(126000u, header.pts);
  EXPECT_EQ(15u, header.payloadOffset);
  Bytes badMarker = mpeg2;
  badMarker[13] = 0x60;
  EXPECT_FALSE(mfdVideo_parsePesHeader(badMarker.data(), badMarker.size(), false, header));
  EXPECT_EQ(1000u, mfdVideo_ptsSpanMs(126000, 216000));
  EXPECT_EQ(1000u, mfdVideo_ptsSpanMs((uint64_t{1} << 33) - 45000, 45000));  // across the wrap
  EXPECT_EQ(0u, mfdVideo_ptsSpanMs(216000, 126000));                         // out of order
}

TEST(MfdVideoParsersTest, TransportLayoutNeedsFiveAlignedPackets) {
  Bytes bytes(192 * 8, 0);
  for (size_t sync = 4; sync < bytes.size(); sync += 192) {
    bytes[sync] = 0x47;
    bytes[sync + 3] = 0x10;
  }
  mfdTsLayout layout;
  ASSERT_TRUE(mfdTs_findLayout(bytes.data(), bytes.size(), layout));
  EXPECT_EQ(192u, layout.stride);
  EXPECT_EQ(4, layout.firstSync);
  bytes[4 + 3 * 192] = 0;
  EXPECT_FALSE(mfdTs_findLayout(bytes.data(), bytes.size(), layout));
}

TEST(MfdVideoParsersTest, ProgramMapChoosesTheFirstKnownStreams) {
  // Pointer field, then a PMT: subtitles (0x06 without audio descriptor),
  // H.264, DVB AC3 (0x06 with descriptor 0x6A), AAC.
  Bytes section = {0x02, 0xB0, 0x00, 0x00, 0x01, 0xC1, 0x00, 0x00, 0xE1, 0x00, 0xF0, 0x00};
  append(section, {0x06, 0xE1, 0x03, 0xF0, 0x03, 0x59, 0x01, 0x00});
  append(section, {0x1B, 0xE1, 0x00, 0xF0, 0x00});
  append(section, {0x06, 0xE1, 0x01, 0xF0, 0x03, 0x6A, 0x01, 0x00});
  append(section, {0x0F, 0xE1, 0x02, 0xF0, 0x00});
  section[2] = static_cast<uint8_t>(section.size() - 3 + 4);
  appendBe32(section, 0);  // CRC, not checked
  const Bytes payload = concat({{0x00}, section});
  mfdTsProgram program;
  ASSERT_TRUE(mfdTs_parsePmt(payload.data(), payload.size(), program));
  EXPECT_EQ(0x100, program.videoPid);
  EXPECT_EQ(MFD_CODEC_AVC, program.videoCodec);
  EXPECT_EQ(0x101, program.audioPid);
  EXPECT_EQ(static_cast<uint32_t>(MFD_FORMAT_AC3), program.audioCodec);
}

// ---------------------------------------------------------------- ASF profiles

mfdAsfStream wma(uint32_t tag, int32_t rate, int32_t channels, uint32_t kbit) {
  mfdAsfStream stream;
  stream.audio = true;
  stream.codecTag = tag;
  stream.sampleRate = rate;
  stream.channels = channels;
  stream.bitrate = kbit * 1000;
  return stream;
}

mfdAsfStream wmv(int32_t width, int32_t height, uint32_t kbit) {
  mfdAsfStream stream;
  stream.video = true;
  stream.codecTag = mfdVideo_fourCc("WMV3");
  stream.width = width;
  stream.height = height;
  stream.bitrate = kbit * 1000;
  return stream;
}

TEST(MfdVideoParsersTest, WmaProfilesFollowTheLimits) {
  constexpr uint32_t kFull = 1, kPro = 2, kBase = 3;
  EXPECT_EQ(kBase, mfdAsf_wmaProfile(wma(0x161, 48000, 2, 192)));
  EXPECT_EQ(kFull, mfdAsf_wmaProfile(wma(0x161, 48000, 2, 193)));
  EXPECT_EQ(kFull, mfdAsf_wmaProfile(wma(0x161, 44100, 1, 385)));
  EXPECT_EQ(0u, mfdAsf_wmaProfile(wma(0x161, 44100, 2, 386)));
  EXPECT_EQ(0u, mfdAsf_wmaProfile(wma(0x161, 96000, 2, 128)));
  EXPECT_EQ(0u, mfdAsf_wmaProfile(wma(0x161, 48000, 6, 128)));
  EXPECT_EQ(kPro, mfdAsf_wmaProfile(wma(0x162, 96000, 8, 1500)));
  EXPECT_EQ(0u, mfdAsf_wmaProfile(wma(0x162, 96000, 8, 1501)));
  EXPECT_EQ(0u, mfdAsf_wmaProfile(wma(0x163, 44100, 2, 900)));  // lossless
  EXPECT_EQ(0u, mfdAsf_wmaProfile(wma(0x055, 44100, 2, 128)));  // MP3
}

TEST(MfdVideoParsersTest, WmvProfilesFollowTheLimits) {
  const mfdAsfStream base = wma(0x161, 44100, 2, 128);
  const mfdAsfStream full = wma(0x161, 48000, 2, 320);
  const mfdAsfStream pro = wma(0x162, 96000, 6, 768);
  EXPECT_EQ(6u, mfdAsf_wmvProfile(wmv(352, 288, 384), &base));
  EXPECT_EQ(6u, mfdAsf_wmvProfile(wmv(320, 240, 300), nullptr));
  EXPECT_EQ(4u, mfdAsf_wmvProfile(wmv(352, 288, 384), &full));
  EXPECT_EQ(5u, mfdAsf_wmvProfile(wmv(352, 288, 384), &pro));
  EXPECT_EQ(1u, mfdAsf_wmvProfile(wmv(352, 288, 385), &base));
  EXPECT_EQ(1u, mfdAsf_wmvProfile(wmv(720, 576, 3000), &full));
  EXPECT_EQ(2u, mfdAsf_wmvProfile(wmv(720, 576, 3000), &pro));
  EXPECT_EQ(0u, mfdAsf_wmvProfile(wmv(720, 576, 3001), &base));
  EXPECT_EQ(0u, mfdAsf_wmvProfile(wmv(1280, 720, 2000), &base));
  const mfdAsfStream mp3 = wma(0x055, 44100, 2, 128);
  EXPECT_EQ(0u, mfdAsf_wmvProfile(wmv(320, 240, 300), &mp3));
}

TEST(MfdVideoParsersTest, AsfCodecIds) {
  EXPECT_EQ(static_cast<uint32_t>(MFD_FORMAT_WMV), mfdAsf_videoCodec(mfdVideo_fourCc("WMV2")));
  EXPECT_EQ(static_cast<uint32_t>(MFD_FORMAT_MPEG4_PART2), mfdAsf_videoCodec(mfdVideo_fourCc("MP4S")));
  EXPECT_EQ(MFD_CODEC_OTHER, mfdAsf_videoCodec(mfdVideo_fourCc("MP43")));
  EXPECT_EQ(static_cast<uint32_t>(MFD_FORMAT_WMA), mfdAsf_audioCodec(0x0161));
  EXPECT_EQ(static_cast<uint32_t>(MFD_FORMAT_MP3), mfdAsf_audioCodec(0x0055));
  EXPECT_EQ(MFD_CODEC_OTHER, mfdAsf_audioCodec(0x1234));
}

// ---------------------------------------------------------------- MP4 profiles

// A movie of one second: an H.264 track of the given size and profile and an
// AAC track, padded with media data to `kbit` kbit/s in all.
Bytes movie(int width, int height, uint32_t profile, uint32_t kbit, const std::string &brand = "isom",
            bool withVideo = true, int channels = 2) {
  const uint8_t constraints = profile == 66 ? 0xC0 : 0x00;
  Bytes avcC = {1, static_cast<uint8_t>(profile), constraints, 30, 0xFF, 0xE0};
  Bytes visual(24, 0);
  appendBe16(visual, static_cast<uint32_t>(width));
  appendBe16(visual, static_cast<uint32_t>(height));
  visual.resize(78, 0);
  const Bytes avc1 = box("avc1", concat({visual, box("avcC", avcC)}));
  // ES descriptor: object type 0x40, AAC LC at 44.1 kHz.
  const Bytes esds = fullBox("esds", 0, {0x03, 25, 0, 1, 0, 0x04, 17, 0x40, 0x15, 0, 0, 0,
                                         0, 1, 0xF4, 0, 0, 1, 0xF4, 0, 0x05, 2,
                                         0x12, static_cast<uint8_t>(0x00 | channels << 3), 0x06, 1, 2});
  Bytes sound(16, 0);
  appendBe16(sound, static_cast<uint32_t>(channels));
  appendBe16(sound, 16);
  appendBe32(sound, 0);
  appendBe32(sound, 44100u << 16);
  const Bytes mp4a = box("mp4a", concat({sound, esds}));
  auto track = [](const std::string &handler, const Bytes &entry) {
    Bytes hdlr(4, 0);
    appendText(hdlr, handler);
    hdlr.resize(24, 0);
    Bytes stsd;
    appendBe32(stsd, 1);
    appendBytes(stsd, entry);
    const Bytes stbl = box("stbl", fullBox("stsd", 0, stsd));
    return box("trak", box("mdia", concat({fullBox("hdlr", 0, hdlr), box("minf", stbl)})));
  };
  Bytes mvhdPayload(8, 0);
  appendBe32(mvhdPayload, 1000);
  appendBe32(mvhdPayload, 1000);
  mvhdPayload.resize(96, 0);
  Bytes moovChildren = fullBox("mvhd", 0, mvhdPayload);
  if (withVideo) appendBytes(moovChildren, track("vide", avc1));
  appendBytes(moovChildren, track("soun", mp4a));
  Bytes ftypPayload;
  appendText(ftypPayload, brand);
  appendBe32(ftypPayload, 0);
  const Bytes head = concat({box("ftyp", ftypPayload), box("moov", moovChildren)});
  const size_t total = kbit * 1000 / 8;
  return concat({head, box("mdat", Bytes(total > head.size() + 8 ? total - head.size() - 8 : 0))});
}

uint32_t profileOf(const Bytes &bytes, const char *name = "m.mp4") {
  int32_t result = -1;
  ScratchDir scratch;
  Detection detection;
  mfdMediaInfo info{};
  result = detection.detect(scratch.write(name, bytes), info);
  EXPECT_EQ(0, result);
  EXPECT_EQ(static_cast<uint32_t>(MFD_FORMAT_MP4), info.formatId);
  return info.profileCode;
}

TEST(MfdVideoParsersTest, Mp4VideoProfileFollowsTheCifLimits) {
  EXPECT_EQ(1u, profileOf(movie(352, 288, 66, 520)));
  EXPECT_EQ(0u, profileOf(movie(352, 288, 66, 530)));
  EXPECT_EQ(0u, profileOf(movie(353, 288, 66, 300)));
  EXPECT_EQ(0u, profileOf(movie(352, 289, 66, 300)));
  EXPECT_EQ(0u, profileOf(movie(320, 240, 100, 300)));  // High profile
  EXPECT_EQ(0u, profileOf(movie(320, 240, 66, 300, "isom", true, 6)));  // 5.1 audio
}

TEST(MfdVideoParsersTest, Mp4AudioProfileFollowsTheIsoLimitsAndBrand) {
  EXPECT_EQ(1u, profileOf(movie(0, 0, 0, 320, "M4A ", false)));
  EXPECT_EQ(0u, profileOf(movie(0, 0, 0, 330, "M4A ", false)));
  EXPECT_EQ(2u, profileOf(movie(0, 0, 0, 128, "3gp5", false), "a.3gp"));
  EXPECT_EQ(2u, profileOf(movie(0, 0, 0, 128, "3g2a", false), "a.3g2"));
  EXPECT_EQ(0u, profileOf(movie(0, 0, 0, 128, "3gp5", false, 6), "b.3gp"));
}

}  // namespace

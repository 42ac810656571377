#pragma once

#include <bit>
#include <cmath>
#include <cstdint>
#include <filesystem>
#include <string>
#include <string_view>
#include <vector>

#include "Support/Signals.hpp"
#include "Support/TemporaryFolder.hpp"

// CAF and AIFF files at 48 kHz made byte by byte, with a channel chunk of one's own.
namespace vellum::test {

inline void appendBigEndian(std::string& bytes, std::uint64_t value, int width) {
  for (int k = width - 1; k >= 0; --k) bytes += static_cast<char>(value >> (8 * k) & 0xFF);
}

// A channel chunk's content: tag, bitmap and descriptions.
inline std::string channelChunk(std::uint32_t tag, std::uint32_t bitmap = 0,
                                const std::vector<std::uint32_t>& labels = {}) {
  std::string bytes;
  appendBigEndian(bytes, tag, 4);
  appendBigEndian(bytes, bitmap, 4);
  appendBigEndian(bytes, labels.size(), 4);
  for (const std::uint32_t label : labels) {
    appendBigEndian(bytes, label, 4);
    for (int field = 0; field < 4; ++field) appendBigEndian(bytes, 0, 4);  // flags and coordinates
  }
  return bytes;
}

// 32-bit float.
inline void writeCAF(const std::filesystem::path& path, const Audio& audio, std::string_view channelChunk) {
  const auto channels = static_cast<std::uint32_t>(audio.channels.size());
  std::string bytes = "caff";
  appendBigEndian(bytes, 1, 2);
  appendBigEndian(bytes, 0, 2);
  bytes += "desc";
  appendBigEndian(bytes, 32, 8);
  appendBigEndian(bytes, std::bit_cast<std::uint64_t>(48000.0), 8);
  bytes += "lpcm";
  for (const std::uint32_t field : {1u, 4 * channels, 1u, channels, 32u}) appendBigEndian(bytes, field, 4);
  bytes += "chan";
  appendBigEndian(bytes, channelChunk.size(), 8);
  bytes += channelChunk;
  bytes += "data";
  appendBigEndian(bytes, 4 + static_cast<std::uint64_t>(audio.frameCount()) * channels * 4, 8);
  appendBigEndian(bytes, 0, 4);
  for (std::size_t n = 0; n < static_cast<std::size_t>(audio.frameCount()); ++n)
    for (const auto& channel : audio.channels)
      appendBigEndian(bytes, std::bit_cast<std::uint32_t>(channel[n]), 4);
  writeBytes(path, bytes);
}

// 16-bit.
inline void writeAIFF(const std::filesystem::path& path, const Audio& audio, std::string_view channelChunk) {
  const auto channels = static_cast<std::uint32_t>(audio.channels.size());
  std::string body = "AIFFCOMM";
  appendBigEndian(body, 18, 4);
  appendBigEndian(body, channels, 2);
  appendBigEndian(body, static_cast<std::uint64_t>(audio.frameCount()), 4);
  appendBigEndian(body, 16, 2);
  appendBigEndian(body, 0x400E, 2);  // 48000 as an 80-bit float
  appendBigEndian(body, 0xBB80000000000000, 8);
  body += "CHAN";
  appendBigEndian(body, channelChunk.size(), 4);
  body += channelChunk;
  body += "SSND";
  appendBigEndian(body, 8 + static_cast<std::uint64_t>(audio.frameCount()) * channels * 2, 4);
  appendBigEndian(body, 0, 8);
  for (std::size_t n = 0; n < static_cast<std::size_t>(audio.frameCount()); ++n)
    for (const auto& channel : audio.channels)
      appendBigEndian(body, static_cast<std::uint64_t>(std::lround(channel[n] * 32768.0f)) & 0xFFFF, 2);
  std::string bytes = "FORM";
  appendBigEndian(bytes, body.size(), 4);
  writeBytes(path, bytes + body);
}

}  // namespace vellum::test

#include "VellumApp/FLACEncoder.hpp"

#include <sndfile.h>

#include <algorithm>
#include <cstdio>
#include <exception>
#include <string>
#include <string_view>
#include <utility>

#include "VellumApp/FileBytes.hpp"
#include "VellumApp/MetadataForms.hpp"

namespace vellum {
namespace {

constexpr std::size_t streamInfoEnd = 4 + 4 + 34;  // "fLaC", a block's head, STREAMINFO
constexpr std::size_t longestBlock = 0xFFFFFF;

// The metadata blocks behind STREAMINFO. The encoder's own name goes into the comments.
std::string bytesOfBlocks(std::span<const AudioMetadata::Chunk> blocks, const std::string& vendor) {
  std::string bytes;
  std::size_t lastHead = 0;
  const auto append = [&](const std::string& type, const std::string& content) {
    if (content.size() > longestBlock)
      throw FileError("it cannot be written: the tags or a picture are too large for FLAC");
    lastHead = bytes.size();
    appendNumber(bytes, std::stoul(type), 1, ByteOrder::big);
    appendNumber(bytes, content.size(), 3, ByteOrder::big);
    bytes += content;
  };
  MetadataForms::VorbisComments comments;
  for (const AudioMetadata::Chunk& block : blocks)
    if (block.id == MetadataForms::vorbisCommentBlock)
      comments = MetadataForms::vorbisCommentsOf(block.bytes);
  comments.vendor = vendor;
  append(std::string(MetadataForms::vorbisCommentBlock), MetadataForms::bytesOf(comments));
  for (const AudioMetadata::Chunk& block : blocks)
    if (block.id != MetadataForms::vorbisCommentBlock) append(block.id, block.bytes);
  constexpr unsigned char lastMark = 0x80;
  bytes[lastHead] = static_cast<char>(static_cast<unsigned char>(bytes[lastHead]) | lastMark);
  return bytes;
}

// The file as libsndfile sees it. libsndfile writes STREAMINFO, a block of comments and the frames, and goes
// back to STREAMINFO at the end. The head is held here until it is complete; then blocks of ours take the
// place of the comments, and all that stands behind is moved.
class Sink {
 public:
  explicit Sink(OutputFile& file) : file_(file) {}

  std::int64_t position = 0, size = 0;

  void write(std::string_view bytes) {
    const std::int64_t from = position;
    position += static_cast<std::int64_t>(bytes.size());
    size = std::max(size, position);
    if (!isHeadDone_) {
      if (head_.size() < static_cast<std::size_t>(size)) head_.resize(static_cast<std::size_t>(size));
      bytes.copy(head_.data() + from, bytes.size());
    } else {
      file_.writeAt(from < static_cast<std::int64_t>(streamInfoEnd) ? from : from + movedBy_, bytes);
    }
  }

  void replaceHead(std::span<const AudioMetadata::Chunk> blocks) {
    constexpr std::size_t blockHeadBytes = 4;
    if (head_.size() < streamInfoEnd + blockHeadBytes || head_.substr(0, 4) != "fLaC")
      throw FileError("it cannot be encoded as FLAC");
    const std::string vendor =
        MetadataForms::vorbisCommentsOf(std::string_view(head_).substr(streamInfoEnd + blockHeadBytes))
            .vendor;
    const std::string head = head_.substr(0, streamInfoEnd) + bytesOfBlocks(blocks, vendor);
    file_.writeAt(0, head);
    movedBy_ = static_cast<std::int64_t>(head.size()) - static_cast<std::int64_t>(head_.size());
    isHeadDone_ = true;
  }

  // What the file has to say cannot be thrown through libsndfile.
  bool hasFailed() const { return static_cast<bool>(failure_); }
  void fail(std::exception_ptr failure) { failure_ = std::move(failure); }
  void throwFailure() const {
    if (failure_) std::rethrow_exception(failure_);
  }

 private:
  OutputFile& file_;
  std::string head_;
  bool isHeadDone_ = false;
  std::int64_t movedBy_ = 0;
  std::exception_ptr failure_;
};

Sink& sinkOf(void* user) {
  return *static_cast<Sink*>(user);
}
sf_count_t sinkLength(void* user) {
  return sinkOf(user).size;
}
sf_count_t sinkSeek(sf_count_t offset, int whence, void* user) {
  Sink& sink = sinkOf(user);
  const std::int64_t from = whence == SEEK_SET ? 0 : whence == SEEK_CUR ? sink.position : sink.size;
  return sink.position = from + offset;
}
sf_count_t sinkRead(void*, sf_count_t, void*) {
  return 0;
}
sf_count_t sinkWrite(const void* bytes, sf_count_t count, void* user) {
  Sink& sink = sinkOf(user);
  if (sink.hasFailed()) return 0;
  try {
    sink.write({static_cast<const char*>(bytes), static_cast<std::size_t>(count)});
    return count;
  } catch (...) {
    sink.fail(std::current_exception());
    return 0;
  }
}
sf_count_t sinkTell(void* user) {
  return sinkOf(user).position;
}

struct CloseSndfile {
  void operator()(SNDFILE* file) const { sf_close(file); }
};

}  // namespace

struct FLACEncoder::Stream {
  Sink sink;
  std::unique_ptr<SNDFILE, CloseSndfile> sndfile;
  std::int64_t channelCount;
  int shift;  // puts a sample at the left end of 32 bits

  void require(bool isDone) const {
    sink.throwFailure();
    if (!isDone) throw FileError("it cannot be encoded as FLAC");
  }
};

FLACEncoder::FLACEncoder(const Settings& settings)
    : stream_(new Stream{.sink = Sink(settings.file),
                         .sndfile = nullptr,
                         .channelCount = settings.channelCount,
                         .shift = static_cast<int>(32 - integerBits(settings.coding))}) {
  SF_INFO info{};
  info.samplerate = static_cast<int>(settings.sampleRate);
  info.channels = static_cast<int>(settings.channelCount);
  info.format =
      SF_FORMAT_FLAC | (settings.coding == SampleCoding::pcm16 ? SF_FORMAT_PCM_16 : SF_FORMAT_PCM_24);
  SF_VIRTUAL_IO functions{sinkLength, sinkSeek, sinkRead, sinkWrite, sinkTell};
  stream_->sndfile.reset(sf_open_virtual(&functions, SFM_WRITE, &info, &stream_->sink));
  stream_->require(stream_->sndfile != nullptr);
  // Makes libsndfile write the head now, and for a file without frames at all.
  sf_command(stream_->sndfile.get(), SFC_UPDATE_HEADER_NOW, nullptr, 0);
  stream_->require(sf_error(stream_->sndfile.get()) == SF_ERR_NO_ERROR);
  stream_->sink.replaceHead(settings.blocks);
}
FLACEncoder::~FLACEncoder() = default;

bool FLACEncoder::takesSampleRate(std::int64_t sampleRate) {
  constexpr std::int64_t inHz = 65'535, inTensOfHz = 655'350;
  return sampleRate >= 1 && (sampleRate <= inHz || (sampleRate <= inTensOfHz && sampleRate % 10 == 0));
}

void FLACEncoder::write(std::span<std::int32_t> samples) {
  for (std::int32_t& sample : samples)
    sample = static_cast<std::int32_t>(static_cast<std::uint32_t>(sample) << stream_->shift);
  const std::int64_t frames = static_cast<std::int64_t>(samples.size()) / stream_->channelCount;
  const bool isWritten = sf_writef_int(stream_->sndfile.get(), samples.data(), frames) == frames;
  stream_->require(isWritten);
}

void FLACEncoder::finish() {
  const bool isClosed = sf_close(stream_->sndfile.release()) == 0;
  stream_->require(isClosed);
}

}  // namespace vellum

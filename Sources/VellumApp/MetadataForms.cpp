#include "VellumApp/MetadataForms.hpp"

#include <sys/stat.h>
#include <unistd.h>

#include <algorithm>
#include <array>
#include <cmath>
#include <cstring>
#include <optional>
#include <set>

#include "VellumApp/FileBytes.hpp"

namespace vellum::MetadataForms {
namespace {

using Chunk = AudioMetadata::Chunk;
using Family = AudioMetadata::Family;
using Marker = AudioMetadata::Marker;
using Tags = std::map<AudioTag, std::string>;

constexpr ByteOrder little = ByteOrder::little, big = ByteOrder::big;

// --- Words -----------------------------------------------------------------------------------------------

struct TagName {
  AudioTag tag;
  std::string_view forPeople, riff, aiff, caf, flac;  // empty: the family has no such tag
};

constexpr std::array<TagName, 10> tagNames = {{
    {AudioTag::title, "title", "INAM", "NAME", "title", "TITLE"},
    {AudioTag::artist, "artist", "IART", "AUTH", "artist", "ARTIST"},
    {AudioTag::album, "album", "IPRD", "", "album", "ALBUM"},
    {AudioTag::date, "date", "ICRD", "", "recorded date", "DATE"},
    {AudioTag::comment, "comment", "ICMT", "ANNO", "comments", "COMMENT"},
    {AudioTag::genre, "genre", "IGNR", "", "genre", "GENRE"},
    {AudioTag::trackNumber, "track number", "ITRK", "", "track number", "TRACKNUMBER"},
    {AudioTag::copyright, "copyright", "ICOP", "(c) ", "copyright", "COPYRIGHT"},
    {AudioTag::license, "license", "", "", "license", "LICENSE"},
    {AudioTag::software, "software", "ISFT", "", "encoding application", "SOFTWARE"},
}};

// Other spellings that are met.
struct OtherName {
  AudioTag tag;
  Family family;
  std::string_view name;
};

constexpr std::array<OtherName, 6> otherNames = {{
    {AudioTag::trackNumber, Family::riff, "IPRT"},
    {AudioTag::date, Family::caf, "date"},
    {AudioTag::date, Family::caf, "year"},
    {AudioTag::comment, Family::caf, "comment"},
    {AudioTag::trackNumber, Family::caf, "tracknumber"},
    {AudioTag::comment, Family::flac, "DESCRIPTION"},
}};

std::string_view nameIn(Family family, const TagName& name) {
  switch (family) {
    case Family::riff:
      return name.riff;
    case Family::aiff:
      return name.aiff;
    case Family::caf:
      return name.caf;
    case Family::flac:
      return name.flac;
    case Family::none:
      break;
  }
  return {};
}

std::optional<AudioTag> tagNamed(Family family, std::string_view word) {
  for (const TagName& name : tagNames)
    if (nameIn(family, name) == word) return name.tag;
  for (const OtherName& name : otherNames)
    if (name.family == family && name.name == word) return name.tag;
  return {};
}

bool isUTF8(std::string_view text) {
  for (std::size_t k = 0; k < text.size();) {
    const auto byte = [&](std::size_t offset) {
      return k + offset < text.size() ? static_cast<unsigned char>(text[k + offset]) : 0u;
    };
    const unsigned first = byte(0);
    const std::size_t length = first < 0x80 ? 1 : first < 0xC2 ? 0 : first < 0xE0 ? 2 : first < 0xF0 ? 3 : 4;
    if (length == 0 || first > 0xF4) return false;
    for (std::size_t offset = 1; offset < length; ++offset)
      if ((byte(offset) & 0xC0) != 0x80) return false;
    const bool isOverlong = (first == 0xE0 && byte(1) < 0xA0) || (first == 0xF0 && byte(1) < 0x90);
    const bool isNoCharacter = (first == 0xED && byte(1) > 0x9F) || (first == 0xF4 && byte(1) > 0x8F);
    if (isOverlong || isNoCharacter) return false;
    k += length;
  }
  return true;
}

// Text of a file as UTF-8, up to a NUL. What is not UTF-8 is Latin-1 in nearly all files.
std::string textOf(std::string_view bytes) {
  bytes = bytes.substr(0, bytes.find('\0'));
  if (isUTF8(bytes)) return std::string(bytes);
  std::string text;
  for (const char byte : bytes) {
    const auto code = static_cast<unsigned char>(byte);
    if (code < 0x80) {
      text += byte;
    } else {
      text += static_cast<char>(0xC0 | code >> 6);
      text += static_cast<char>(0x80 | (code & 0x3F));
    }
  }
  return text;
}

// --- What chunks say -------------------------------------------------------------------------------------

struct Meaning {
  Tags tags;
  std::vector<Marker> markers;
  std::set<std::string> otherTags, otherOfMarkers;  // what the two fields do not hold, by name

  void addTag(Family family, std::string_view name, std::string_view bytes) {
    const std::string text = textOf(bytes);
    if (text.empty()) return;
    const auto tag = tagNamed(family, name);
    if (!tag || !tags.emplace(*tag, text).second) otherTags.insert(std::string(name));
  }
};

// Sub-chunks of a RIFF list, as far as they are whole.
std::vector<Chunk> entriesOf(std::string_view list) {
  std::vector<Chunk> entries;
  for (std::size_t at = 4; at + 8 <= list.size();) {
    const auto size = static_cast<std::size_t>(numberAt(list, at + 4, 4, little));
    if (size > list.size() - at - 8) break;
    entries.push_back({std::string(list.substr(at, 4)), std::string(list.substr(at + 8, size))});
    at += 8 + size + size % 2;
  }
  return entries;
}

bool isList(const Chunk& chunk, std::string_view kind) {
  return chunk.id == "LIST" && std::string_view(chunk.bytes).substr(0, 4) == kind;
}

Meaning meaningOfRIFF(const std::vector<Chunk>& chunks) {
  constexpr std::size_t cueBytes = 24;
  Meaning meaning;
  std::map<std::uint64_t, std::string> names;  // by cue
  for (const Chunk& chunk : chunks) {
    if (isList(chunk, "INFO"))
      for (const Chunk& entry : entriesOf(chunk.bytes)) meaning.addTag(Family::riff, entry.id, entry.bytes);
    if (!isList(chunk, "adtl")) continue;
    for (const Chunk& entry : entriesOf(chunk.bytes)) {
      if (entry.bytes.size() < 4) continue;
      if (entry.id == "labl")
        names.emplace(numberAt(entry.bytes, 0, 4, little), textOf(std::string_view(entry.bytes).substr(4)));
      else if (entry.id == "ltxt" && numberAt(entry.bytes, 4, 4, little) > 0)
        meaning.otherOfMarkers.insert("lengths of marked regions");
      else if (entry.id == "note")
        meaning.otherOfMarkers.insert("notes on markers");
    }
  }
  for (const Chunk& chunk : chunks) {
    if (chunk.id == "plst") meaning.otherOfMarkers.insert("playlist of markers");
    if (chunk.id != "cue ") continue;
    for (std::size_t at = 4; at + cueBytes <= chunk.bytes.size(); at += cueBytes) {
      const auto name = names.find(numberAt(chunk.bytes, at, 4, little));
      meaning.markers.push_back({static_cast<std::int64_t>(numberAt(chunk.bytes, at + 20, 4, little)),
                                 name == names.end() ? std::string() : name->second});
    }
  }
  return meaning;
}

Meaning meaningOfAIFF(const std::vector<Chunk>& chunks) {
  Meaning meaning;
  for (const Chunk& chunk : chunks) {
    if (tagNamed(Family::aiff, chunk.id)) meaning.addTag(Family::aiff, chunk.id, chunk.bytes);
    if (chunk.id == "INST") meaning.otherOfMarkers.insert("loops");
    if (chunk.id != "MARK") continue;
    for (std::size_t at = 2; at + 7 <= chunk.bytes.size();) {
      const auto length = static_cast<std::size_t>(numberAt(chunk.bytes, at + 6, 1, big));
      meaning.markers.push_back({static_cast<std::int64_t>(numberAt(chunk.bytes, at + 2, 4, big)),
                                 textOf(std::string_view(chunk.bytes).substr(at + 7, length))});
      at += 7 + length + (length + 1) % 2;
    }
  }
  return meaning;
}

Meaning meaningOfCAF(const std::vector<Chunk>& chunks) {
  constexpr std::size_t markerBytes = 28;
  Meaning meaning;
  std::map<std::uint64_t, std::string> names;  // by marker
  for (const Chunk& chunk : chunks) {
    const std::string_view bytes = chunk.bytes;
    if (chunk.id == "info") {
      for (std::size_t at = 4; at < bytes.size();) {
        const std::string_view key = bytes.substr(at, bytes.find('\0', at) - at);
        const std::size_t valueAt = at + key.size() + 1;
        if (valueAt >= bytes.size()) break;
        const std::string_view value = bytes.substr(valueAt, bytes.find('\0', valueAt) - valueAt);
        meaning.addTag(Family::caf, key, value);
        at = valueAt + value.size() + 1;
      }
    } else if (chunk.id == "strg") {
      const std::uint64_t count = std::min<std::uint64_t>(numberAt(bytes, 0, 4, big), bytes.size() / 12);
      const std::size_t texts = 4 + static_cast<std::size_t>(count) * 12;
      for (std::size_t at = 4; at < texts; at += 12) {
        const std::uint64_t offset = numberAt(bytes, at + 4, 8, big);
        if (texts <= bytes.size() && offset < bytes.size() - texts)
          names.emplace(numberAt(bytes, at, 4, big),
                        textOf(bytes.substr(texts + static_cast<std::size_t>(offset))));
      }
    } else if (chunk.id == "regn") {
      meaning.otherOfMarkers.insert("regions");
    } else if (chunk.id == "inst") {
      meaning.otherOfMarkers.insert("loops");
    }
  }
  for (const Chunk& chunk : chunks) {
    if (chunk.id != "mark") continue;
    for (std::size_t at = 8; at + markerBytes <= chunk.bytes.size(); at += markerBytes) {
      const std::uint64_t bits = numberAt(chunk.bytes, at + 4, 8, big);
      double frame;
      std::memcpy(&frame, &bits, sizeof frame);
      if (!(frame >= 0 && frame < 0x1p62)) continue;
      const auto name = names.find(numberAt(chunk.bytes, at + 12, 4, big));
      meaning.markers.push_back({static_cast<std::int64_t>(std::llround(frame)),
                                 name == names.end() ? std::string() : name->second});
    }
  }
  return meaning;
}

Meaning meaningOfFLAC(const std::vector<Chunk>& chunks) {
  Meaning meaning;
  for (const Chunk& chunk : chunks) {
    if (chunk.id != vorbisCommentBlock) continue;
    for (const std::string& entry : vorbisCommentsOf(chunk.bytes).entries) {
      const std::size_t equals = entry.find('=');
      if (equals == std::string::npos) continue;
      std::string name = entry.substr(0, equals);
      for (char& letter : name)
        if (letter >= 'a' && letter <= 'z') letter = static_cast<char>(letter - 'a' + 'A');
      meaning.addTag(Family::flac, name, entry.substr(equals + 1));
    }
  }
  return meaning;
}

Meaning meaningOf(Family family, const std::vector<Chunk>& chunks) {
  switch (family) {
    case Family::riff:
      return meaningOfRIFF(chunks);
    case Family::aiff:
      return meaningOfAIFF(chunks);
    case Family::caf:
      return meaningOfCAF(chunks);
    case Family::flac:
      return meaningOfFLAC(chunks);
    case Family::none:
      break;
  }
  return {};
}

enum class Role { tags, markers, other };

Role roleOf(Family family, const Chunk& chunk) {
  const auto isOneOf = [&](std::initializer_list<std::string_view> ids) {
    return std::find(ids.begin(), ids.end(), chunk.id) != ids.end();
  };
  switch (family) {
    case Family::riff:
      if (isList(chunk, "INFO")) return Role::tags;
      return isList(chunk, "adtl") || isOneOf({"cue ", "plst"}) ? Role::markers : Role::other;
    case Family::aiff:
      if (tagNamed(family, chunk.id)) return Role::tags;
      return isOneOf({"MARK", "INST"}) ? Role::markers : Role::other;
    case Family::caf:
      if (chunk.id == "info") return Role::tags;
      return isOneOf({"mark", "strg", "regn", "inst"}) ? Role::markers : Role::other;
    case Family::flac:
      return chunk.id == vorbisCommentBlock ? Role::tags : Role::other;
    case Family::none:
      break;
  }
  return Role::other;
}

std::string nameForPeople(Family family, const Chunk& chunk) {
  if (family != Family::flac) return "'" + chunk.id + "' chunk";
  if (chunk.id == "2") return "block of another application";
  if (chunk.id == "5") return "cue sheet";
  if (chunk.id == "6") return "picture";
  return "block of type " + chunk.id;
}

// --- Spelling --------------------------------------------------------------------------------------------

class Speller {
 public:
  explicit Speller(Container container) : container_(nameOf(container)) {}

  void lose(const std::string& what) { spelling_.losses.push_back(container_ + " keeps " + what); }
  void add(std::string id, std::string bytes) {
    spelling_.chunks.push_back({std::move(id), std::move(bytes)});
  }
  void spellTags(Family family, const Tags& tags);
  void spellMarkers(Family family, std::vector<Marker> markers);
  Spelling take() { return std::move(spelling_); }

 private:
  void spellCues(const std::vector<Marker>& markers);
  void spellMARK(const std::vector<Marker>& markers);
  void spellCAFMarkers(const std::vector<Marker>& markers);
  void dropMarkers(std::vector<Marker>& markers, std::int64_t lastFrame, std::size_t most);

  std::string container_;
  Spelling spelling_;
};

void appendEntry(std::string& list, std::string_view id, std::string_view bytes) {
  list += id;
  appendNumber(list, bytes.size(), 4, little);
  list += bytes;
  if (bytes.size() % 2 == 1) list += '\0';
}

void Speller::spellTags(Family family, const Tags& tags) {
  std::string list = "INFO", pairs;
  std::uint64_t count = 0;
  VorbisComments comments;
  for (const TagName& name : tagNames) {
    const auto tag = tags.find(name.tag);
    if (tag == tags.end() || tag->second.empty()) continue;
    const std::string& text = tag->second;
    const std::string word(nameIn(family, name));
    if (word.empty()) {
      lose("no " + std::string(name.forPeople) + " tag: it is lost");
      continue;
    }
    ++count;
    if (family == Family::aiff) add(word, text);
    appendEntry(list, word, text + '\0');
    pairs += word + '\0' + textOf(text) + '\0';
    comments.entries.push_back(word + '=' + textOf(text));
  }
  if (count == 0) return;
  if (family == Family::riff) add("LIST", list);
  if (family == Family::flac) add(std::string(vorbisCommentBlock), bytesOf(comments));
  if (family == Family::caf) {
    std::string bytes;
    appendNumber(bytes, count, 4, big);
    add("info", bytes + pairs);
  }
}

void Speller::dropMarkers(std::vector<Marker>& markers, std::int64_t lastFrame, std::size_t most) {
  const auto isTooFar = [=](const Marker& marker) { return marker.frame > lastFrame; };
  const auto tooFar = std::count_if(markers.begin(), markers.end(), isTooFar);
  if (tooFar > 0)
    lose("no markers after frame " + std::to_string(lastFrame) + ": " + std::to_string(tooFar) +
         (tooFar == 1 ? " is lost" : " are lost"));
  std::erase_if(markers, isTooFar);
  if (markers.size() <= most) return;
  lose("only " + std::to_string(most) + " markers: the other " + std::to_string(markers.size() - most) +
       " are lost");
  markers.resize(most);
}

void Speller::spellMarkers(Family family, std::vector<Marker> markers) {
  constexpr std::int64_t last32Bit = 0xFFFFFFFF;
  std::erase_if(markers, [](const Marker& marker) { return marker.frame < 0; });
  if (family == Family::riff) dropMarkers(markers, last32Bit, 1'000'000);
  if (family == Family::aiff) dropMarkers(markers, last32Bit, 32'767);
  if (markers.empty()) return;
  switch (family) {
    case Family::riff:
      return spellCues(markers);
    case Family::aiff:
      return spellMARK(markers);
    case Family::caf:
      return spellCAFMarkers(markers);
    case Family::flac:
    case Family::none:
      lose("no markers: " + std::to_string(markers.size()) +
           (markers.size() == 1 ? " is lost" : " are lost"));
  }
}

void Speller::spellCues(const std::vector<Marker>& markers) {
  std::string cues, names = "adtl";
  appendNumber(cues, markers.size(), 4, little);
  std::uint64_t id = 0;
  for (const Marker& marker : markers) {
    ++id;
    const auto frame = static_cast<std::uint64_t>(marker.frame);
    appendNumber(cues, id, 4, little);
    appendNumber(cues, frame, 4, little);
    cues += "data";
    appendNumber(cues, 0, 8, little);  // starts of the chunk and the block: one of each
    appendNumber(cues, frame, 4, little);
    if (marker.name.empty()) continue;
    std::string label;
    appendNumber(label, id, 4, little);
    appendEntry(names, "labl", label + marker.name + '\0');
  }
  add("cue ", cues);
  if (names.size() > 4) add("LIST", names);
}

// At most `most` bytes, and no character cut in two.
std::string shortened(const std::string& text, std::size_t most) {
  if (text.size() <= most) return text;
  std::size_t end = most;
  while (end > 0 && (static_cast<unsigned char>(text[end]) & 0xC0) == 0x80) --end;
  return text.substr(0, end);
}

void Speller::spellMARK(const std::vector<Marker>& markers) {
  constexpr std::size_t longestName = 255;
  std::string bytes;
  appendNumber(bytes, markers.size(), 2, big);
  std::uint64_t id = 0, cutNames = 0;
  for (const Marker& marker : markers) {
    appendNumber(bytes, ++id, 2, big);
    appendNumber(bytes, static_cast<std::uint64_t>(marker.frame), 4, big);
    const std::string name = shortened(marker.name, longestName);
    if (name.size() < marker.name.size()) ++cutNames;
    appendNumber(bytes, name.size(), 1, big);
    bytes += name;
    if (name.size() % 2 == 0) bytes += '\0';
  }
  if (cutNames > 0)
    lose("255 bytes of a marker's name: the end of " + std::to_string(cutNames) +
         (cutNames == 1 ? " is lost" : " are lost"));
  add("MARK", bytes);
}

void Speller::spellCAFMarkers(const std::vector<Marker>& markers) {
  std::string bytes, index, texts;
  appendNumber(bytes, 0, 4, big);  // no SMPTE times
  appendNumber(bytes, markers.size(), 4, big);
  std::uint64_t id = 0, nameCount = 0;
  for (const Marker& marker : markers) {
    ++id;
    const auto frame = static_cast<double>(marker.frame);
    std::uint64_t bits;
    std::memcpy(&bits, &frame, sizeof bits);
    appendNumber(bytes, 0, 4, big);  // a marker of no special type
    appendNumber(bytes, bits, 8, big);
    appendNumber(bytes, id, 4, big);
    appendNumber(bytes, 0, 8, big);  // SMPTE time
    appendNumber(bytes, 0, 4, big);  // of all channels
    if (marker.name.empty()) continue;
    ++nameCount;
    appendNumber(index, id, 4, big);
    appendNumber(index, texts.size(), 8, big);
    texts += textOf(marker.name) + '\0';
  }
  add("mark", bytes);
  if (nameCount == 0) return;
  std::string strings;
  appendNumber(strings, nameCount, 4, big);
  add("strg", strings + index + texts);
}

Family familyOf(Container container) {
  switch (container) {
    case Container::wav:
    case Container::rf64:
      return Family::riff;
    case Container::aiff:
      return Family::aiff;
    case Container::caf:
      return Family::caf;
    case Container::flac:
      return Family::flac;
  }
  return Family::none;
}

// --- Walking through a file ------------------------------------------------------------------------------

struct Place {
  std::string id;
  std::int64_t start, size;
};

std::string bytesAt(int descriptor, std::int64_t position, std::size_t count) {
  std::string bytes(count, '\0');
  const ssize_t got = ::pread(descriptor, bytes.data(), count, position);
  bytes.resize(static_cast<std::size_t>(std::max<ssize_t>(0, got)));
  return bytes;
}

// Sizes that a file claims may be anything: nothing below 0 and nothing that overflows a sum comes out.
std::int64_t plausible(std::uint64_t size) {
  return static_cast<std::int64_t>(std::min<std::uint64_t>(size, std::uint64_t{1} << 60));
}

std::vector<Place> placesInRIFF(int descriptor, std::int64_t end) {
  constexpr std::int64_t unknownSize = 0xFFFFFFFF;
  std::vector<Place> places;
  std::int64_t dataBytes = unknownSize;
  for (std::int64_t at = 12; at + 8 <= end;) {
    const std::string head = bytesAt(descriptor, at, 24);
    Place place{head.substr(0, 4), at + 8, plausible(numberAt(head, 4, 4, little))};
    if (place.id == "ds64") dataBytes = plausible(numberAt(head, 16, 8, little));
    if (place.id == "data" && place.size == unknownSize) place.size = dataBytes;
    places.push_back(place);
    at = place.start + place.size + place.size % 2;
  }
  return places;
}

// Its chunks are named by 16 bytes, of which the first 4 say enough, and their sizes count the 24 of the
// head.
std::vector<Place> placesInW64(int descriptor, std::int64_t end) {
  std::vector<Place> places;
  for (std::int64_t at = 40; at + 24 <= end;) {
    const std::string head = bytesAt(descriptor, at, 24);
    const std::int64_t size = plausible(numberAt(head, 16, 8, little));
    if (size < 24) break;
    places.push_back({head.substr(0, 4), at + 24, size - 24});
    at += (size + 7) / 8 * 8;
  }
  return places;
}

std::vector<Place> placesInAIFF(int descriptor, std::int64_t end) {
  std::vector<Place> places;
  for (std::int64_t at = 12; at + 8 <= end;) {
    const std::string head = bytesAt(descriptor, at, 8);
    const Place place{head.substr(0, 4), at + 8, plausible(numberAt(head, 4, 4, big))};
    places.push_back(place);
    at = place.start + place.size + place.size % 2;
  }
  return places;
}

std::vector<Place> placesInCAF(int descriptor, std::int64_t end) {
  std::vector<Place> places;
  for (std::int64_t at = 8; at + 12 <= end;) {
    const std::string head = bytesAt(descriptor, at, 12);
    const Place place{head.substr(0, 4), at + 12, plausible(numberAt(head, 4, 8, big))};
    places.push_back(place);
    at = place.start + place.size;
  }
  return places;
}

std::vector<Place> placesInFLAC(int descriptor, std::int64_t end) {
  std::vector<Place> places;
  std::int64_t at = 4;
  if (const std::string tag = bytesAt(descriptor, 0, 10); tag.substr(0, 3) == "ID3") {
    at += 10;
    for (std::size_t k = 6; k < 10; ++k)
      at += static_cast<std::int64_t>(numberAt(tag, k, 1, big)) << 7 * (9 - static_cast<int>(k));
  }
  for (bool isLast = false; !isLast && at + 4 <= end;) {
    const std::string head = bytesAt(descriptor, at, 4);
    const std::uint64_t type = numberAt(head, 0, 1, big);
    isLast = type & 0x80;
    const Place place{std::to_string(type & 0x7F), at + 4, plausible(numberAt(head, 1, 3, big))};
    places.push_back(place);
    at = place.start + place.size;
  }
  return places;
}

std::vector<Place> placesIn(int descriptor, Family family, std::int64_t end) {
  switch (family) {
    case Family::riff:
      return bytesAt(descriptor, 0, 4) == "riff" ? placesInW64(descriptor, end)
                                                 : placesInRIFF(descriptor, end);
    case Family::aiff:
      return placesInAIFF(descriptor, end);
    case Family::caf:
      return placesInCAF(descriptor, end);
    case Family::flac:
      return placesInFLAC(descriptor, end);
    case Family::none:
      break;
  }
  return {};
}

// The format and the samples, which are written anew; figures drawn from the samples, which would be wrong;
// and filling.
bool isCarried(Family family, const std::string& id) {
  static const std::map<Family, std::set<std::string>> dropped = {
      {Family::riff,
       {"fmt ", "fact", "data", "ds64", "PEAK", "levl", "JUNK", "junk", "PAD ", "pad ", "FLLR", "fill"}},
      {Family::aiff, {"COMM", "SSND", "FVER", "CHAN", "PEAK", "FLLR", "JUNK"}},
      {Family::caf, {"desc", "data", "chan", "pakt", "kuki", "peak", "ovvw", "free"}},
      {Family::flac, {"0", "1", "3"}},
  };
  return !dropped.at(family).contains(id);
}

bool isPrintable(const std::string& id) {
  return std::all_of(id.begin(), id.end(), [](char letter) { return letter >= ' ' && letter <= '~'; });
}

}  // namespace

AudioMetadata read(int descriptor, AudioMetadata::Family family) {
  constexpr std::int64_t mostBytes = 64 << 20;  // of all chunks together
  AudioMetadata metadata;
  struct stat status;
  if (family == Family::none || ::fstat(descriptor, &status) != 0) return metadata;
  metadata.family = family;
  const bool isW64 = family == Family::riff && bytesAt(descriptor, 0, 4) == "riff";
  std::int64_t carriedBytes = 0;
  for (const Place& place : placesIn(descriptor, family, status.st_size)) {
    if (!isPrintable(place.id)) break;  // no chunk starts here: the file is damaged
    if (!isCarried(family, place.id)) continue;
    const std::string name = nameForPeople(family, {place.id, {}});
    if (place.start + place.size > status.st_size) {
      metadata.omissions.push_back("the " + name + " of the input is cut short: it is lost");
    } else if (isW64 && place.id != "bext") {
      metadata.omissions.push_back("the " + name + " of a W64 file is not carried over: it is lost");
    } else if (carriedBytes + place.size > mostBytes) {
      metadata.omissions.push_back("the " + name +
                                   " of the input is too large to be carried over: it is lost");
    } else {
      carriedBytes += place.size;
      std::string bytes = bytesAt(descriptor, place.start, static_cast<std::size_t>(place.size));
      if (family == Family::riff && place.id == "bext")
        metadata.bext = std::move(bytes);
      else
        metadata.chunks.push_back({place.id, std::move(bytes)});
    }
  }
  Meaning meaning = meaningOf(family, metadata.chunks);
  metadata.tags = std::move(meaning.tags);
  metadata.markers = std::move(meaning.markers);
  return metadata;
}

Spelling spell(const AudioMetadata& metadata, Container container) {
  const Family family = familyOf(container);
  const Meaning meaning = meaningOf(metadata.family, metadata.chunks);
  const bool isAtHome = metadata.family == family;
  const bool keepsTags = isAtHome && meaning.tags == metadata.tags;
  const bool keepsMarkers = isAtHome && meaning.markers == metadata.markers;

  Speller speller(container);
  if (family == Family::riff && !metadata.bext.empty()) speller.add("bext", metadata.bext);
  if (family != Family::riff && !metadata.bext.empty()) speller.lose("no 'bext' chunk: it is lost");
  for (const Chunk& chunk : metadata.chunks) {
    const Role role = roleOf(metadata.family, chunk);
    const bool isKept = role == Role::tags ? keepsTags : role == Role::markers ? keepsMarkers : isAtHome;
    if (isKept)
      speller.add(chunk.id, chunk.bytes);
    else if (role == Role::other)
      speller.lose("no " + nameForPeople(metadata.family, chunk) + ": it is lost");
  }
  if (!keepsTags) {
    speller.spellTags(family, metadata.tags);
    for (const std::string& name : meaning.otherTags) speller.lose("no tag '" + name + "': it is lost");
  }
  if (!keepsMarkers) {
    speller.spellMarkers(family, metadata.markers);
    for (const std::string& what : meaning.otherOfMarkers) speller.lose("no " + what + ": they are lost");
  }
  Spelling spelling = speller.take();
  spelling.losses.insert(spelling.losses.begin(), metadata.omissions.begin(), metadata.omissions.end());
  return spelling;
}

VorbisComments vorbisCommentsOf(std::string_view bytes) {
  VorbisComments comments;
  std::size_t at = 0;
  const auto next = [&]() -> std::optional<std::string> {
    if (bytes.size() - at < 4) return {};
    const auto length = static_cast<std::size_t>(numberAt(bytes, at, 4, little));
    at += 4;
    if (length > bytes.size() - at) return {};
    at += length;
    return std::string(bytes.substr(at - length, length));
  };
  const auto vendor = next();
  if (!vendor) return comments;
  comments.vendor = *vendor;
  const std::uint64_t count = numberAt(bytes, at, 4, little);
  at = std::min(at + 4, bytes.size());
  for (std::uint64_t k = 0; k < count; ++k) {
    auto entry = next();
    if (!entry) break;
    comments.entries.push_back(std::move(*entry));
  }
  return comments;
}

std::string bytesOf(const VorbisComments& comments) {
  std::string bytes;
  appendNumber(bytes, comments.vendor.size(), 4, little);
  bytes += comments.vendor;
  appendNumber(bytes, comments.entries.size(), 4, little);
  for (const std::string& entry : comments.entries) {
    appendNumber(bytes, entry.size(), 4, little);
    bytes += entry;
  }
  return bytes;
}

}  // namespace vellum::MetadataForms

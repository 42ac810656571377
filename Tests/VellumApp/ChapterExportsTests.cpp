#include "VellumApp/ChapterExports.hpp"

#include <gtest/gtest.h>
#include <rapidcheck/gtest.h>

#include <algorithm>
#include <cstdio>
#include <limits>
#include <map>
#include <nlohmann/json.hpp>
#include <optional>
#include <sstream>
#include <string>
#include <utility>
#include <vector>

#include "Support/TemporaryFolder.hpp"
#include "Support/TextAssertions.hpp"

namespace vellum {
namespace {

using ChapterExports::Judgement;
using ChapterExports::Source;
using nlohmann::json;
using test::contains;
using test::TemporaryFolder;

Chapter chapterAt(std::int64_t index, std::string name, double startSec, double endSec) {
  return {
      .id = UUID::random(), .index = index, .name = std::move(name), .startSec = startSec, .endSec = endSec};
}

Source sourceOf(const std::vector<Chapter>& chapters, double durationSec = 7200,
                std::string fileName = "talk.wav") {
  return {
      .chapters = chapters, .fileName = std::move(fileName), .sampleRate = 48000, .durationSec = durationSec};
}

// Whatever a person may type into a report.
const std::vector<std::string> oddNames = {"Chapter 01",  "\"quoted\" and 'quoted'",
                                           "a=b;c#d",     "back\\slash\\",
                                           "\\",          "two\nlines",
                                           "a\r\nb",      "tab\there",
                                           " spaces  ",   "",
                                           "#!;=",        "täst",
                                           "x\x7Fy\x01z", "[CHAPTER]\nSTART=5",
                                           "a,b,\"c\"\n", "=1+1",
                                           "START=0"};

std::vector<Chapter> chaptersNamed(const std::vector<std::string>& names) {
  std::vector<Chapter> chapters;
  for (const std::string& name : names) {
    const auto k = static_cast<double>(chapters.size());
    chapters.push_back(chapterAt(static_cast<std::int64_t>(k) + 1, name, 60 * k, 60 * k + 50.5));
  }
  return chapters;
}

std::vector<std::string> linesOf(const std::string& text) {
  std::istringstream stream(text);
  std::vector<std::string> lines;
  for (std::string line; std::getline(stream, line);) lines.push_back(line);
  return lines;
}

// --- Cue sheets ------------------------------------------------------------------------------------------

struct CueTrack {
  int number;
  std::string title;
  int minutes, seconds, frames;
};

// After the format's rules: a command per line, texts in quotation marks that hold none.
struct CueSheet {
  std::string file, type;
  std::vector<CueTrack> tracks;
};

CueSheet readCue(const std::string& text) {
  CueSheet sheet;
  const auto quoted = [](const std::string& line) {
    const std::size_t from = line.find('"') + 1, to = line.find('"', from);
    EXPECT_NE(to, std::string::npos) << line;
    EXPECT_EQ(line.find('"', to + 1), std::string::npos) << line;
    return line.substr(from, to - from);
  };
  for (const std::string& line : linesOf(text)) {
    CueTrack track{};
    if (line.starts_with("FILE ")) {
      sheet.file = quoted(line);
      sheet.type = line.substr(line.rfind(' ') + 1);
    } else if (std::sscanf(line.c_str(), "  TRACK %2d AUDIO", &track.number) == 1) {
      sheet.tracks.push_back(track);
    } else if (line.starts_with("    TITLE ")) {
      sheet.tracks.back().title = quoted(line);
    } else {
      CueTrack& last = sheet.tracks.back();
      EXPECT_EQ(
          std::sscanf(line.c_str(), "    INDEX 01 %2d:%2d:%2d", &last.minutes, &last.seconds, &last.frames),
          3)
          << line;
    }
  }
  return sheet;
}

TEST(ChapterExports, CueSheetHoldsTitlesAndStartsIn75thsOfASecond) {
  const std::vector<Chapter> chapters = {chapterAt(1, "One", 0, 61.5),
                                         chapterAt(2, "Two", 61.5, 3661.0 + 74.4 / 75),
                                         chapterAt(3, "Three", 3661.0 + 74.4 / 75, 7200)};
  const CueSheet sheet = readCue(ChapterExports::cueSheet(sourceOf(chapters)));
  EXPECT_EQ(sheet.file, "talk.wav");
  ASSERT_EQ(sheet.tracks.size(), 3u);
  EXPECT_EQ(sheet.tracks[1].number, 2);
  EXPECT_EQ(sheet.tracks[1].title, "Two");
  EXPECT_EQ(sheet.tracks[1].minutes, 1);
  EXPECT_EQ(sheet.tracks[1].seconds, 1);
  EXPECT_EQ(sheet.tracks[1].frames, 38);  // 37.5, nearest
  EXPECT_EQ(sheet.tracks[2].minutes, 61);
  EXPECT_EQ(sheet.tracks[2].seconds, 1);
  EXPECT_EQ(sheet.tracks[2].frames, 74);
}

TEST(ChapterExports, CueSheetKeepsEveryNameOnItsLine) {
  const CueSheet sheet =
      readCue(ChapterExports::cueSheet(sourceOf(chaptersNamed(oddNames), 7200, "a \"b\".wav")));
  ASSERT_EQ(sheet.tracks.size(), oddNames.size());
  EXPECT_EQ(sheet.file, "a 'b'.wav");
  EXPECT_EQ(sheet.tracks[1].title, "'quoted' and 'quoted'");
  EXPECT_EQ(sheet.tracks[3].title, "back\\slash\\");
  EXPECT_EQ(sheet.tracks[5].title, "two lines");
  EXPECT_EQ(sheet.tracks[8].title, " spaces  ");
}

TEST(ChapterExports, CueSheetNamesTheKindOfFile) {
  const std::vector<Chapter> chapters = chaptersNamed({"x"});
  for (const auto& [file, type] : std::vector<std::pair<std::string, std::string>>{
           {"a.wav", "WAVE"}, {"a.flac", "WAVE"}, {"a.AIFF", "AIFF"}, {"a.mp3", "MP3"}, {"a", "WAVE"}})
    EXPECT_EQ(readCue(ChapterExports::cueSheet(sourceOf(chapters, 7200, file))).type, type) << file;
}

TEST(ChapterExports, CueSheetEndsAt99Tracks) {
  EXPECT_FALSE(
      ChapterExports::reasonAgainstCueSheet(sourceOf(chaptersNamed(std::vector<std::string>(99, "x")))));
  const std::vector<Chapter> tooMany = chaptersNamed(std::vector<std::string>(100, "x"));
  EXPECT_EQ(ChapterExports::reasonAgainstCueSheet(sourceOf(tooMany)),
            "a cue sheet has at most 99 tracks, and there are 100 chapters");
  EXPECT_DEATH(ChapterExports::cueSheet(sourceOf(tooMany)), "a cue sheet cannot hold these chapters");
}

TEST(ChapterExports, CueSheetEndsAt99MinutesAnd74Frames) {
  const auto reasonAt = [](double startSec) {
    const std::vector<Chapter> chapters = {chapterAt(1, "x", startSec, 9000)};
    return ChapterExports::reasonAgainstCueSheet(sourceOf(chapters, 9000));
  };
  const double last = 99 * 60 + 59 + 74.0 / 75;
  EXPECT_FALSE(reasonAt(last));
  EXPECT_FALSE(reasonAt(last + 0.49 / 75));
  EXPECT_EQ(reasonAt(6000), "a cue sheet ends at 99:59:74, and a chapter starts at 100:00:00");
  EXPECT_TRUE(reasonAt(last + 0.51 / 75));
  const std::vector<Chapter> chapters = {chapterAt(1, "x", last, 9000)};
  EXPECT_TRUE(contains(ChapterExports::cueSheet(sourceOf(chapters, 9000)), "INDEX 01 99:59:74"));
}

// --- FFmpeg metadata -------------------------------------------------------------------------------------

struct FFChapter {
  std::string timebase, start, end, title;
};

// After the documented rules of the format: a header, sections in brackets, key=value lines; lines that start
// with ; or # are comments; a backslash takes the next character as it is, a line feed too.
std::vector<FFChapter> readFFmetadata(const std::string& text) {
  std::vector<std::string> lines = {""};  // still escaped
  for (std::size_t n = 0; n < text.size(); ++n) {
    if (text[n] == '\\' && n + 1 < text.size()) {
      lines.back().append({text[n], text[n + 1]});
      ++n;
    } else if (text[n] == '\n') {
      lines.emplace_back();
    } else {
      lines.back() += text[n];
    }
  }
  EXPECT_EQ(lines.front(), ";FFMETADATA1");
  std::vector<FFChapter> chapters;
  for (const std::string& line : lines) {
    if (line.empty() || line[0] == ';' || line[0] == '#') continue;
    if (line == "[CHAPTER]") {
      chapters.emplace_back();
      continue;
    }
    std::string parts[2];
    int part = 0;
    for (std::size_t n = 0; n < line.size(); ++n) {
      if (line[n] == '=' && part == 0)
        part = 1;
      else if (line[n] == '\\')
        parts[part] += line[++n];
      else
        parts[part] += line[n];
    }
    if (chapters.empty()) {
      ADD_FAILURE() << "outside of a chapter: " << line;
      continue;
    }
    if (parts[0] == "TIMEBASE") chapters.back().timebase = parts[1];
    if (parts[0] == "START") chapters.back().start = parts[1];
    if (parts[0] == "END") chapters.back().end = parts[1];
    if (parts[0] == "title") chapters.back().title = parts[1];
  }
  return chapters;
}

TEST(ChapterExports, FFmetadataReadsBackWithEveryName) {
  const auto chapters = readFFmetadata(ChapterExports::ffmetadata(sourceOf(chaptersNamed(oddNames))));
  ASSERT_EQ(chapters.size(), oddNames.size());
  for (std::size_t k = 0; k < oddNames.size(); ++k) {
    EXPECT_EQ(chapters[k].title, oddNames[k]);
    EXPECT_EQ(chapters[k].timebase, "1/48000");
    EXPECT_EQ(chapters[k].start, std::to_string(60 * 48000 * k));
    EXPECT_EQ(chapters[k].end, std::to_string(60 * 48000 * k + 48000 * 101 / 2));
  }
}

TEST(ChapterExports, FFmetadataLeavesOutWhatWouldEndIt) {
  const auto chapters =
      readFFmetadata(ChapterExports::ffmetadata(sourceOf(chaptersNamed({std::string("a\0b", 3)}))));
  EXPECT_EQ(chapters.at(0).title, "ab");
}

RC_GTEST_PROP(ChapterExports, FFmetadataReadsBackWithAnyName, (std::string name)) {
  std::string withoutNUL;  // which a text file cannot hold
  for (const char c : name)
    if (c != '\0') withoutNUL += c;
  const auto chapters = readFFmetadata(ChapterExports::ffmetadata(sourceOf(chaptersNamed({name, "next"}))));
  RC_ASSERT(chapters.size() == 2);
  RC_ASSERT(chapters[0].title == withoutNUL);
  RC_ASSERT(chapters[1].title == "next");
}

// --- Labels ----------------------------------------------------------------------------------------------

TEST(ChapterExports, LabelsAreLinesOfThreeFields) {
  const auto lines = linesOf(ChapterExports::labels(sourceOf(chaptersNamed(oddNames))));
  ASSERT_EQ(lines.size(), oddNames.size());
  EXPECT_EQ(lines[0], "0.000000\t50.500000\tChapter 01");
  EXPECT_EQ(lines[5], "300.000000\t350.500000\ttwo lines");
  EXPECT_EQ(lines[7], "420.000000\t470.500000\ttab here");
}

RC_GTEST_PROP(ChapterExports, LabelsHaveThreeFieldsWhateverTheName, (std::string name)) {
  const std::string text = ChapterExports::labels(sourceOf(chaptersNamed({name})));
  RC_ASSERT(std::count(text.begin(), text.end(), '\n') == 1);
  RC_ASSERT(std::count(text.begin(), text.end(), '\t') == 2);
}

// --- JSON ------------------------------------------------------------------------------------------------

TEST(ChapterExports, PodcastChaptersAreTheDocumentOfTheNamespace) {
  const json document = json::parse(ChapterExports::podcastChapters(sourceOf(chaptersNamed(oddNames))));
  EXPECT_EQ(document.at("version"), "1.2.0");
  ASSERT_EQ(document.at("chapters").size(), oddNames.size());
  for (std::size_t k = 0; k < oddNames.size(); ++k) {
    const json& chapter = document.at("chapters")[k];
    EXPECT_EQ(chapter.at("title"), oddNames[k]);
    EXPECT_EQ(chapter.at("startTime"), 60.0 * static_cast<double>(k));
    EXPECT_EQ(chapter.at("endTime"), 60.0 * static_cast<double>(k) + 50.5);
  }
}

// --- Marks in all forms ----------------------------------------------------------------------------------

TEST(ChapterExports, MarksComeInTheOrderOfTheirStartsAndEndWithTheFile) {
  const std::vector<Chapter> chapters = {chapterAt(1, "late", 50, 1e9), chapterAt(2, "early", 0, 50)};
  EXPECT_EQ(ChapterExports::labels(sourceOf(chapters, 100)),
            "0.000000\t50.000000\tearly\n50.000000\t100.000000\tlate\n");
  EXPECT_EQ(readFFmetadata(ChapterExports::ffmetadata(sourceOf(chapters, 100)))[1].end, "4800000");
  EXPECT_EQ(readCue(ChapterExports::cueSheet(sourceOf(chapters, 100))).tracks[0].title, "early");
  EXPECT_EQ(json::parse(ChapterExports::podcastChapters(sourceOf(chapters, 100)))["chapters"][1]["endTime"],
            100.0);
}

TEST(ChapterExports, NoChaptersGiveEmptyLists) {
  EXPECT_EQ(ChapterExports::cueSheet(sourceOf({})), "FILE \"talk.wav\" WAVE\n");
  EXPECT_EQ(ChapterExports::ffmetadata(sourceOf({})), ";FFMETADATA1\n");
  EXPECT_EQ(ChapterExports::labels(sourceOf({})), "");
  EXPECT_EQ(json::parse(ChapterExports::podcastChapters(sourceOf({})))["chapters"].size(), 0u);
}

// --- CSV -------------------------------------------------------------------------------------------------

// The rows as Python's csv module reads them.
std::vector<std::map<std::string, std::string>> readCSV(const std::string& text) {
  const TemporaryFolder folder;
  test::writeBytes(folder / "x.csv", text);
  const std::string program =
      "import csv, json, sys; "
      "print(json.dumps(list(csv.DictReader(open(sys.argv[1], newline='', encoding='utf-8')))))";
  const std::string command = "python3 -c \"" + program + "\" " + (folder / "x.csv").string();
  FILE* const pipe = ::popen(command.c_str(), "r");
  std::string output;
  for (int c; (c = std::fgetc(pipe)) != EOF;) output += static_cast<char>(c);
  EXPECT_EQ(::pclose(pipe), 0);
  return json::parse(output).get<std::vector<std::map<std::string, std::string>>>();
}

TEST(ChapterExports, CSVReadsBackWithEveryNameAndFigure) {
  std::vector<Chapter> chapters = chaptersNamed(oddNames);
  std::vector<Judgement> judgements(chapters.size(),
                                    Judgement{.deviation = {}, .isFlagged = false, .gainDB = {}});
  chapters[1].integratedLUFS = -18.1f;
  chapters[1].speechPercentage = 0.25f;
  chapters[1].rmsDBFS = -std::numeric_limits<float>::infinity();
  judgements[1] = {.deviation = -3.5f, .isFlagged = true, .gainDB = 3.5f};
  const auto rows = readCSV(ChapterExports::csv(chapters, judgements));
  ASSERT_EQ(rows.size(), oddNames.size());
  for (std::size_t k = 0; k < rows.size(); ++k) {
    EXPECT_EQ(rows[k].at("name"), oddNames[k]);
    EXPECT_EQ(rows[k].at("id"), chapters[k].id.text());
    EXPECT_EQ(rows[k].at("index"), std::to_string(k + 1));
    EXPECT_EQ(std::stod(rows[k].at("endSec")), chapters[k].endSec);
  }
  EXPECT_EQ(rows[1].at("integratedLUFS"), "-18.1");
  EXPECT_EQ(rows[1].at("speechPercentage"), "0.25");
  EXPECT_EQ(rows[1].at("rmsDBFS"), "");  // silence has no number
  EXPECT_EQ(rows[1].at("durationSec"), "50.5");
  EXPECT_EQ(rows[1].at("deviation"), "-3.5");
  EXPECT_EQ(rows[1].at("isFlagged"), "true");
  EXPECT_EQ(rows[1].at("gainDB"), "3.5");
  EXPECT_EQ(rows[0].at("integratedLUFS"), "");
  EXPECT_EQ(rows[0].at("isFlagged"), "false");
  EXPECT_EQ(rows[0].size(), 6 + chapterMeasurements.size() + 3);
}

// --- File names ------------------------------------------------------------------------------------------

TEST(ChapterExports, FileNamesAreSafeOnEveryFileSystem) {
  const auto nameOf = [](std::int64_t index, const std::string& name, std::size_t count = 12) {
    return ChapterExports::fileNameOf(chapterAt(index, name, 0, 1), count);
  };
  EXPECT_EQ(nameOf(1, "Chapter 01"), "01 Chapter 01");
  EXPECT_EQ(nameOf(7, "x", 100), "007 x");
  EXPECT_EQ(nameOf(12, "../../etc/passwd"), "12 .._.._etc_passwd");
  EXPECT_EQ(nameOf(1, "a:b*c?d\"e<f>g|h\\i\nj"), "01 a_b_c_d_e_f_g_h_i_j");
  EXPECT_EQ(nameOf(1, "  dots and spaces. . "), "01 dots and spaces");
  EXPECT_EQ(nameOf(1, ""), "01");
  EXPECT_EQ(nameOf(1, " ."), "01");
  EXPECT_EQ(nameOf(1, "Ünïcode ✓"), "01 Ünïcode ✓");
}

TEST(ChapterExports, LongFileNamesAreCutBetweenCharacters) {
  std::string name = "x";
  for (int k = 0; k < 200; ++k) name += "ü";
  const std::string cut = ChapterExports::fileNameOf(chapterAt(1, name, 0, 1), 1);
  std::string expected = "01 x";
  for (int k = 0; k < 59; ++k) expected += "ü";  // 1 + 2 x 59 = 119 bytes: another does not fit into 120
  EXPECT_EQ(cut, expected);
}

RC_GTEST_PROP(ChapterExports, NoFileNameLeavesItsFolder, (std::string name)) {
  const std::string file = ChapterExports::fileNameOf(chapterAt(3, name, 0, 1), 5);
  RC_ASSERT(file.starts_with("03"));
  RC_ASSERT(file.find('/') == std::string::npos);
  RC_ASSERT(file.find('\0') == std::string::npos);
  RC_ASSERT(file.size() <= 130);
}

}  // namespace
}  // namespace vellum

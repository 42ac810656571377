#include "VellumCore/Json/LoudnessTargetDocuments.hpp"

#include <utility>

namespace vellum::Json {
namespace {

Value objectOf(std::initializer_list<Member> members) {
  return Object(std::vector<Member>(members));
}

Value caseOf(const char* name, std::initializer_list<Member> fields) {
  return objectOf({{name, objectOf(fields)}});
}

Value valueOf(const LoudnessTreatment& treatment) {
  if (const auto* penalty = std::get_if<LoudnessTreatment::Penalty>(&treatment.value))
    return caseOf("penalty", {{"referenceLUFS", penalty->referenceLUFS},
                              {"truePeakCeilingDBTP", penalty->truePeakCeilingDBTP},
                              {"boostBehaviour", rawValue(penalty->boostBehaviour)}});
  const auto& compliance = std::get<LoudnessTreatment::Compliance>(treatment.value);
  return caseOf("compliance", {{"referenceLUFS", compliance.referenceLUFS},
                               {"toleranceLU", compliance.toleranceLU},
                               {"truePeakCeilingDBTP", compliance.truePeakCeilingDBTP}});
}

Value valueOf(const ExtraCriterion& criterion) {
  if (const auto* noiseFloor = std::get_if<ExtraCriterion::NoiseFloor>(&criterion.value))
    return caseOf("noiseFloor", {{"maxDBRMS", noiseFloor->maxDBRMS}});
  return caseOf("maxShortTerm",
                {{"maxLUFS", std::get<ExtraCriterion::MaxShortTerm>(criterion.value).maxLUFS}});
}

LoudnessTreatment readTreatment(const Reader& reader) {
  const auto [name, fields] = reader.onlyCase();
  if (name == "penalty")
    return {LoudnessTreatment::Penalty{fields.member("referenceLUFS").float32(),
                                       fields.member("truePeakCeilingDBTP").float32(),
                                       fields.member("boostBehaviour").enumeration<BoostBehaviour>()}};
  if (name == "compliance")
    return {LoudnessTreatment::Compliance{fields.member("referenceLUFS").float32(),
                                          fields.member("toleranceLU").float32(),
                                          fields.member("truePeakCeilingDBTP").float32()}};
  reader.failWithUnknownCase(name);
}

ExtraCriterion readExtraCriterion(const Reader& reader) {
  const auto [name, fields] = reader.onlyCase();
  if (name == "noiseFloor") return {ExtraCriterion::NoiseFloor{fields.member("maxDBRMS").float32()}};
  if (name == "maxShortTerm") return {ExtraCriterion::MaxShortTerm{fields.member("maxLUFS").float32()}};
  reader.failWithUnknownCase(name);
}

std::vector<std::string> readTexts(const Reader& reader) {
  std::vector<std::string> texts;
  for (const Reader& element : reader.elements()) texts.push_back(element.text());
  return texts;
}

}  // namespace

Value valueOf(const LoudnessTarget& target) {
  Array extraCriteria;
  for (const ExtraCriterion& criterion : target.extraCriteria) extraCriteria.push_back(valueOf(criterion));
  return objectOf({{"id", target.id},
                   {"name", target.name},
                   {"mode", rawValue(target.mode)},
                   {"source", rawValue(target.source)},
                   {"treatment", valueOf(target.treatment)},
                   {"extraCriteria", std::move(extraCriteria)}});
}

Value valueOf(const LoudnessTargetSelection& selection) {
  Array idsByMode;
  for (const auto& [mode, ids] : selection.selectedTargetIDsByMode) {
    idsByMode.push_back(rawValue(mode));
    idsByMode.push_back(Array(ids.begin(), ids.end()));
  }
  Array customTargets;
  for (const LoudnessTarget& target : selection.customTargets) customTargets.push_back(valueOf(target));
  return objectOf({{"mode", rawValue(selection.mode)},
                   {"selectedTargetIDsByMode", std::move(idsByMode)},
                   {"customTargets", std::move(customTargets)}});
}

LoudnessTarget readLoudnessTarget(const Reader& reader) {
  LoudnessTarget target{.id = reader.member("id").text(),
                        .name = reader.member("name").text(),
                        .mode = reader.member("mode").enumeration<LoudnessTargetMode>(),
                        .source = reader.member("source").enumeration<LoudnessSource>(),
                        .treatment = readTreatment(reader.member("treatment")),
                        .extraCriteria = {}};
  for (const Reader& criterion : reader.member("extraCriteria").elements())
    target.extraCriteria.push_back(readExtraCriterion(criterion));
  return target;
}

LoudnessTargetSelection readLoudnessTargetSelection(const Reader& reader) {
  LoudnessTargetSelection selection{.mode = reader.member("mode").enumeration<LoudnessTargetMode>(),
                                    .selectedTargetIDsByMode = {},
                                    .customTargets = {}};
  const Reader idsByMode = reader.member("selectedTargetIDsByMode");
  const std::vector<Reader> pairs = idsByMode.elements();
  if (pairs.size() % 2 != 0)
    idsByMode.fail(DocumentError::Kind::dataCorrupted, "a mode without its ids: the array's length is odd");
  for (std::size_t k = 0; k < pairs.size(); k += 2)
    selection.selectedTargetIDsByMode[pairs[k].enumeration<LoudnessTargetMode>()] = readTexts(pairs[k + 1]);
  if (const auto customTargets = reader.find("customTargets"))
    for (const Reader& target : customTargets->elements())
      selection.customTargets.push_back(readLoudnessTarget(target));
  return selection;
}

std::optional<std::string> documentText(const LoudnessTargetSelection& selection) {
  const Value value = valueOf(selection);
  if (!isWritable(value)) return {};
  return indentedText(value);
}

LoudnessTargetSelection parseLoudnessTargetSelection(std::string_view text) {
  const Value document = parse(text);
  return readLoudnessTargetSelection(Reader(document));
}

}  // namespace vellum::Json

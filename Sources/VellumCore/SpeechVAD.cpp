#include "VellumCore/SpeechVAD.hpp"

#include <algorithm>
#include <cmath>
#include <numbers>
#include <utility>

#include "VellumCore/Fourier/RealFFT.hpp"
#include "VellumCore/Kernels/Kernels.hpp"
#include "VellumCore/Support/Require.hpp"

namespace vellum {

namespace {

constexpr float powerFloor = 1e-20f;         // guards the ratios against silence only
constexpr float silenceRMS = 0.000316f;      // about -70 dBFS
constexpr float highFrequencyShare = 0.35f;  // of the power above bin 0: more is hiss or cymbals
constexpr float speechBandShare = 0.45f;     // of the power: less is not speech
constexpr float flatnessCeilingDB = -8.0f;   // noise stands near 0, voiced speech far below
constexpr std::int64_t flatnessMinBins = 4;
constexpr float harmonicShare = 0.2f;  // mean of the 2nd and 3rd harmonic against the fundamental
constexpr float fluxFloor = 0.02f;     // squared change of the normalised speech band

constexpr std::int64_t lastBin = SpeechVAD::halfN - 1;

std::int64_t binOf(double frequencyHz, double sampleRate) {
  const double bin = std::round(frequencyHz * static_cast<double>(SpeechVAD::fftN) / sampleRate);
  VELLUM_REQUIRE(sampleRate > 0 && std::isfinite(sampleRate) && std::isfinite(bin),
                 "SpeechVAD: sampleRate must be finite and above 0");
  return static_cast<std::int64_t>(std::clamp(bin, 0.0, static_cast<double>(lastBin)));
}

std::vector<float> periodicHann(std::int64_t size) {
  std::vector<float> window(static_cast<std::size_t>(size));
  for (std::size_t i = 0; i < window.size(); ++i)
    window[i] = (1.0f - std::cos(2.0f * std::numbers::pi_v<float> * static_cast<float>(i) /
                                 static_cast<float>(size))) /
                2.0f;
  return window;
}

}  // namespace

SpeechVAD::SpeechVAD(double sampleRate)
    : sampleRate_(sampleRate),
      bins_{.binSubBassEnd = binOf(300, sampleRate),
            .binSpeechStart = binOf(300, sampleRate),
            .binSpeechEnd = binOf(3400, sampleRate),
            .binHiFreqStart = binOf(4000, sampleRate),
            .binF0Start = std::max<std::int64_t>(binOf(80, sampleRate), 1),
            .binF0End = binOf(400, sampleRate)},
      fft_(std::make_unique<RealFFT>(fftN)),
      hannWindow_(periodicHann(fftN)),
      windowedBuf_(fftN),
      specReal_(halfN),
      specImag_(halfN),
      magSq_(halfN),
      prevNormSpeech_(static_cast<std::size_t>(bins_.speechBinCount())),
      currNormSpeech_(prevNormSpeech_.size()) {}

SpeechVAD::~SpeechVAD() = default;
SpeechVAD::SpeechVAD(SpeechVAD&&) noexcept = default;
SpeechVAD& SpeechVAD::operator=(SpeechVAD&&) noexcept = default;

bool SpeechVAD::isSpeech(std::span<const float> block) {
  if (block.empty()) return false;
  block = block.first(std::min<std::size_t>(block.size(), fftN));
  const auto n = static_cast<std::int64_t>(block.size());
  const float meanSquare =
      static_cast<float>(kernels().sumOfSquares(block.data(), n) / static_cast<double>(n));
  if (!(std::sqrt(meanSquare) > silenceRMS)) {
    hasSpectralHistory_ = false;
    return false;
  }

  transform(block);
  if (hasExcessiveHighFrequency()) {
    hasSpectralHistory_ = false;
    return false;
  }
  if (!bandEnergyRatioPasses() || !spectralFlatnessPasses()) {
    updateSpectralHistory();
    return false;
  }
  if (harmonicityPasses()) {
    updateSpectralHistory();
    return true;
  }
  return spectralFluxPasses();
}

void SpeechVAD::transform(std::span<const float> block) {
  const auto n = static_cast<std::int64_t>(block.size());
  kernels().multiply(block.data(), hannWindow_.data(), windowedBuf_.data(), n);
  std::fill(windowedBuf_.begin() + n, windowedBuf_.end(), 0.0f);
  fft_->forward(windowedBuf_, specReal_, specImag_);
  kernels().power(specReal_.data(), specImag_.data(), magSq_.data(), halfN);
}

float SpeechVAD::bandPower(std::int64_t first, std::int64_t end) const {
  return kernels().sum(magSq_.data() + first, end - first);
}

bool SpeechVAD::hasExcessiveHighFrequency() const {
  const float high = bandPower(bins_.binHiFreqStart, halfN);
  const float total = bandPower(bins_.binDCEnd, halfN);
  return total > powerFloor && high / total > highFrequencyShare;
}

bool SpeechVAD::bandEnergyRatioPasses() const {
  const float low = bandPower(bins_.binDCEnd, bins_.binSubBassEnd);
  const float speech = speechBandPower();
  const float high = bandPower(bins_.binSpeechEnd, halfN);
  const float total = low + speech + high;
  return total > powerFloor && speech / total > speechBandShare;
}

// The geometric against the arithmetic mean of the speech band.
bool SpeechVAD::spectralFlatnessPasses() const {
  const std::int64_t count = bins_.speechBinCount();
  if (count < flatnessMinBins) return false;
  const float arithmetic = speechBandPower() / static_cast<float>(count);
  // The logarithm of a product of four: a quarter of the logarithms. Four powers of 1e-20 to 3e38 stay well
  // inside 64 bits.
  float logSum = 0;
  for (std::int64_t k = bins_.binSpeechStart; k < bins_.binSpeechEnd;) {
    double product = 1;
    for (const std::int64_t end = std::min(k + 4, bins_.binSpeechEnd); k < end; ++k)
      product *= static_cast<double>(std::max(magSq_[static_cast<std::size_t>(k)], powerFloor));
    logSum += static_cast<float>(std::log10(product));
  }
  const float geometric = logSum / static_cast<float>(count);
  const float flatnessDB = 10.0f * (geometric - std::log10(std::max(arithmetic, powerFloor)));
  return flatnessDB < flatnessCeilingDB;
}

// A peak among the fundamentals of the voice with energy at its second and third harmonic.
bool SpeechVAD::harmonicityPasses() const {
  if (bins_.binF0Start >= bins_.binF0End) return false;
  std::int64_t peakBin = bins_.binF0Start;
  float peak = 0;
  for (std::int64_t k = bins_.binF0Start; k <= bins_.binF0End; ++k) {
    const float power = magSq_[static_cast<std::size_t>(k)];
    if (power > peak) {
      peak = power;
      peakBin = k;
    }
  }
  if (!(peak > powerFloor)) return false;
  return (peakNear(2 * peakBin) + peakNear(3 * peakBin)) / (2.0f * peak) > harmonicShare;
}

float SpeechVAD::peakNear(std::int64_t bin) const {
  if (bin < 1 || bin > lastBin) return 0;
  const auto power = [this](std::int64_t k) { return magSq_[static_cast<std::size_t>(k)]; };
  return std::max({power(std::max<std::int64_t>(bin - 1, 1)), power(bin), power(std::min(bin + 1, lastBin))});
}

void SpeechVAD::normaliseSpeechBand(float total, std::vector<float>& out) const {
  const float* band = magSq_.data() + bins_.binSpeechStart;
  for (std::size_t k = 0; k < out.size(); ++k) out[k] = band[k] / total;
}

void SpeechVAD::updateSpectralHistory() {
  const float total = speechBandPower();
  if (bins_.speechBinCount() < 1 || !(total > powerFloor)) return;
  normaliseSpeechBand(total, prevNormSpeech_);
  hasSpectralHistory_ = true;
}

// Speech moves: its spectrum changes from block to block. The first block after a break counts as moving.
bool SpeechVAD::spectralFluxPasses() {
  if (bins_.speechBinCount() < 1) return true;
  const float total = speechBandPower();
  if (!(total > powerFloor)) {
    hasSpectralHistory_ = false;
    return false;
  }
  normaliseSpeechBand(total, currNormSpeech_);
  bool moves = true;
  if (hasSpectralHistory_) {
    float change = 0;
    for (std::size_t k = 0; k < currNormSpeech_.size(); ++k) {
      const float difference = currNormSpeech_[k] - prevNormSpeech_[k];
      change += difference * difference;
    }
    moves = change > fluxFloor;
  }
  std::swap(prevNormSpeech_, currNormSpeech_);
  hasSpectralHistory_ = true;
  return moves;
}

}  // namespace vellum

#pragma once

#include <cstdint>
#include <memory>
#include <span>
#include <vector>

namespace vellum {

class RealFFT;

// Decides for one block of mono audio whether it holds speech: five spectral tests with fixed band edges and
// thresholds over one 4096-point spectrum, and the previous block's speech-band spectrum for a flux test.
//
// Life: construct, isSpeech*. One stream per instance, blocks in time order, one thread at a time.
// isSpeech allocates nothing. The verdict does not depend on level above -70 dBFS RMS. A NaN or an
// infinity among the samples looked at is not speech.
class SpeechVAD {
 public:
  // sampleRate in Hz, finite and above 0.
  explicit SpeechVAD(double sampleRate);
  ~SpeechVAD();
  SpeechVAD(SpeechVAD&&) noexcept;
  SpeechVAD& operator=(SpeechVAD&&) noexcept;

  // The decision for one block of samples. Only the first 4096 are looked at; fewer are zero-padded.
  bool isSpeech(std::span<const float> block);

  static constexpr std::int64_t fftN = 4096, halfN = 2048;

  // The bins between which the tests add up: round(f x 4096 / sampleRate), never outside 0 ... 2047.
  struct Bins {
    std::int64_t binDCEnd = 1;    // bin 0 is left out everywhere
    std::int64_t binSubBassEnd;   // 300 Hz
    std::int64_t binSpeechStart;  // 300 Hz
    std::int64_t binSpeechEnd;    // 3400 Hz
    std::int64_t binHiFreqStart;  // 4000 Hz
    std::int64_t binF0Start;      // 80 Hz, at least 1
    std::int64_t binF0End;        // 400 Hz

    std::int64_t speechBinCount() const {
      return binSpeechEnd > binSpeechStart ? binSpeechEnd - binSpeechStart : 0;
    }
  };
  const Bins& bins() const { return bins_; }
  double sampleRate() const { return sampleRate_; }
  // The previous block's normalised speech-band spectrum is in memory.
  bool hasSpectralHistory() const { return hasSpectralHistory_; }

 private:
  void transform(std::span<const float> block);
  // Sum of the power of bins first ... end - 1.
  float bandPower(std::int64_t first, std::int64_t end) const;
  float speechBandPower() const { return bandPower(bins_.binSpeechStart, bins_.binSpeechEnd); }
  void normaliseSpeechBand(float total, std::vector<float>& out) const;
  float peakNear(std::int64_t bin) const;

  bool hasExcessiveHighFrequency() const;
  bool bandEnergyRatioPasses() const;
  bool spectralFlatnessPasses() const;
  bool harmonicityPasses() const;
  bool spectralFluxPasses();
  void updateSpectralHistory();

  double sampleRate_;
  Bins bins_;
  std::unique_ptr<RealFFT> fft_;
  std::vector<float> hannWindow_, windowedBuf_;
  std::vector<float> specReal_, specImag_;
  std::vector<float> magSq_;  // power per bin; entry 0 mixes DC and Nyquist and is never used
  std::vector<float> prevNormSpeech_, currNormSpeech_;
  bool hasSpectralHistory_ = false;
};

}  // namespace vellum

#pragma once

#include <cstdint>

// The conversions that the signal generator's parts share. Nothing here depends on the CPU.
namespace vellum {

// Seconds in frames, rounded, halves away from zero; a product that is negative or not finite is 0, and
// 9e15 is the most.
std::int64_t framesOfSeconds(double seconds, double sampleRate);

// 10^(dB / 20), -200 dB and below exactly 0; what has no place in 32 bit (+771 dB and more) is the largest
// float. As dbToLinear, but with the same last bit on every CPU.
float flooredAmplitude(float dB);

// What became infinite is the largest float again.
void saturate(float* x, std::int64_t n);

// Of the module at these positions in the document, counted from 0.
std::uint64_t moduleSeed(std::uint64_t channel, std::uint64_t module);

// x *= target / measured, where `measured` is a peak or RMS of x. Nothing if that is not above 0.
void scaleToLevel(float* x, std::int64_t n, float measured, float target);

// What brings a peak that lies above the ceiling down to it; else 1. -200 dBFS and below is no ceiling.
float ceilingGain(float peak, float ceilingDB);

}  // namespace vellum

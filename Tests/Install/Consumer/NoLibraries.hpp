// Included after a public header: whatever that header includes must not be one of these.
#if defined(FMT_VERSION)
#error "a public header includes fmt"
#elif defined(NLOHMANN_JSON_VERSION_MAJOR)
#error "a public header includes nlohmann-json"
#elif defined(KISS_FFT_H)
#error "a public header includes KissFFT"
#endif

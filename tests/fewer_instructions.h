// Lets the library see a processor with fewer instruction sets than this one's. The test is linked with
// -Wl,--wrap=_ZN2qv18processor_featuresEv.
#ifndef QVLIB_TESTS_FEWER_INSTRUCTIONS_H
#define QVLIB_TESTS_FEWER_INSTRUCTIONS_H

#include <cstdint>

inline uint32_t visible_features = UINT32_MAX;

// While it lives, the library sees of the processor's features only these (processor_ bits).
class fewer_instructions
{
  public:
    explicit fewer_instructions(uint32_t visible)
    {
        visible_features = visible;
    }
    ~fewer_instructions()
    {
        visible_features = UINT32_MAX;
    }
    fewer_instructions(const fewer_instructions &) = delete;
    fewer_instructions &operator=(const fewer_instructions &) = delete;
};

extern "C" {
uint32_t __real__ZN2qv18processor_featuresEv();
uint32_t __wrap__ZN2qv18processor_featuresEv();
uint32_t __wrap__ZN2qv18processor_featuresEv()
{
    return __real__ZN2qv18processor_featuresEv() & visible_features;
}
}

#endif

// Lets the library see a processor with fewer instruction sets than this one's.
#ifndef QVLIB_TESTS_FEWER_INSTRUCTIONS_H
#define QVLIB_TESTS_FEWER_INSTRUCTIONS_H

#include <cstdint>

#include "processor.h"

// While it lives, the library sees of the processor's features only these (processor_ bits).
class fewer_instructions
{
  public:
    explicit fewer_instructions(uint32_t visible) : answer_(qv::processor_features())
    {
        constexpr uint32_t all = 2 * qv::processor_shuffle_64 - 1;
        qv::processor_answer = answer_ & (visible | ~all);
    }
    ~fewer_instructions()
    {
        qv::processor_answer = answer_;
    }
    fewer_instructions(const fewer_instructions &) = delete;
    fewer_instructions &operator=(const fewer_instructions &) = delete;

  private:
    const uint32_t answer_;
};

#endif

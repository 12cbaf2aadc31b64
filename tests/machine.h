/* What CMake tells the tests about the machine that runs them. */
#ifndef MACHINE_H
#define MACHINE_H

#ifndef QVLIB_TEST_PERCENT
#define QVLIB_TEST_PERCENT 100
#endif
#ifndef QVLIB_TEST_EMULATED
#define QVLIB_TEST_EMULATED 0
#endif

// How often a test with random input goes round: its own count, or under an emulator a share of it.
template <class T> constexpr T scaled(T rounds)
{
    return rounds * QVLIB_TEST_PERCENT / 100;
}

// Whether an emulator stands between the program and the kernel.
constexpr bool running_emulated()
{
    return QVLIB_TEST_EMULATED;
}

// What a limit in seconds is multiplied by: an emulator takes its time.
constexpr double slowness = running_emulated() ? 30 : 1;

#endif

// I/O vectors: results against the plain meaning of a vector, the concatenation of its entries.
#include <qvlib/iovec.h>

#include "failing_heap.h"

#include <gtest/gtest.h>

#include <cerrno>
#include <climits>
#include <cstdint>
#include <cstdlib>
#include <cstring>
#include <numeric>
#include <random>
#include <string>
#include <vector>

namespace
{

// Entries of the given lengths, each in a block of its own so that the sanitizer sees every byte beyond it;
// the bytes count up over the whole vector.
class Vector
{
  public:
    explicit Vector(const std::vector<size_t> &lengths)
    {
        uint8_t next = 0;
        for (const size_t length : lengths) {
            blocks_.emplace_back(length);
            std::iota(blocks_.back().begin(), blocks_.back().end(), next);
            next = static_cast<uint8_t>(next + length);
        }
        for (auto &block : blocks_)
            entries_.push_back({block.empty() ? nullptr : block.data(), block.size()});
    }
    const struct iovec *data() const
    {
        return entries_.data();
    }
    int count() const
    {
        return static_cast<int>(entries_.size());
    }
    const std::vector<uint8_t> &block(size_t i) const
    {
        return blocks_[i];
    }
    std::vector<uint8_t> flat() const
    {
        std::vector<uint8_t> bytes;
        for (const auto &block : blocks_)
            bytes.insert(bytes.end(), block.begin(), block.end());
        return bytes;
    }

  private:
    std::vector<std::vector<uint8_t>> blocks_;
    std::vector<struct iovec> entries_;
};

std::vector<uint8_t> bytes_of(const struct iovec *iov, int iovcnt)
{
    std::vector<uint8_t> bytes;
    for (int i = 0; i < iovcnt; i++) {
        const auto *base = static_cast<const uint8_t *>(iov[i].iov_base);
        if (iov[i].iov_len != 0)
            bytes.insert(bytes.end(), base, base + iov[i].iov_len);
    }
    return bytes;
}

// The bytes from `offset` on, `len` of them.
std::vector<uint8_t> slice(const std::vector<uint8_t> &bytes, size_t offset, size_t len)
{
    const auto first = bytes.begin() + static_cast<std::ptrdiff_t>(offset);
    return {first, first + static_cast<std::ptrdiff_t>(len)};
}

struct subset {
    int result;
    struct iovec *out;
    int count;
};

subset cut(const Vector &vector, size_t offset, size_t len, struct iovec *scratch = nullptr,
           int scratchcnt = 0)
{
    subset cut = {0, nullptr, -7};
    cut.result = fill_iovec_subset(&cut.out, &cut.count, len, offset, scratch, scratchcnt, vector.data(),
                                   vector.count());
    return cut;
}

} // namespace

TEST(SizeIovec, SumsTheLengthsOfTheEntries)
{
    const Vector vector({10, 0, 5});
    EXPECT_EQ(size_iovec(vector.data(), 3), 15u);
    EXPECT_EQ(size_iovec(vector.data(), 2), 10u);
}

TEST(SizeIovec, IsZeroForACountOfZeroOrLess)
{
    const Vector vector({10});
    EXPECT_EQ(size_iovec(vector.data(), 0), 0u);
    EXPECT_EQ(size_iovec(vector.data(), -1), 0u);
    EXPECT_EQ(size_iovec(vector.data(), INT_MIN), 0u);
    EXPECT_EQ(size_iovec(nullptr, 3), 0u);
}

TEST(CheckEndOfIov, MovesAnOffsetAtAnEntrysEndToTheNextEntryThatIsNotEmpty)
{
    const Vector vector({10, 0, 5});
    size_t offset = 10;
    int index = 0;
    check_end_of_iov(vector.data(), 3, &offset, &index);
    EXPECT_EQ(index, 2);
    EXPECT_EQ(offset, 0u);
}

TEST(CheckEndOfIov, CarriesAnOffsetBeyondAnEntryIntoALaterOne)
{
    const Vector vector({10, 0, 5});
    size_t offset = 12;
    int index = 0;
    check_end_of_iov(vector.data(), 3, &offset, &index);
    EXPECT_EQ(index, 2);
    EXPECT_EQ(offset, 2u);
}

TEST(CheckEndOfIov, EndsAtTheCountWhenTheVectorIsUsedUp)
{
    const Vector vector({10, 0, 5});
    size_t offset = 15;
    int index = 0;
    check_end_of_iov(vector.data(), 3, &offset, &index);
    EXPECT_EQ(index, 3);
    EXPECT_EQ(offset, 0u);
}

TEST(CheckEndOfIov, KeepsTheBytesBeyondTheEndInTheOffset)
{
    const Vector vector({10, 0, 5});
    size_t offset = 18;
    int index = 0;
    check_end_of_iov(vector.data(), 3, &offset, &index);
    EXPECT_EQ(index, 3);
    EXPECT_EQ(offset, 3u);
}

TEST(CheckEndOfIov, LeavesACursorInsideAnEntryAlone)
{
    const Vector vector({10, 0, 5});
    size_t offset = 9;
    int index = 0;
    check_end_of_iov(vector.data(), 3, &offset, &index);
    EXPECT_EQ(index, 0);
    EXPECT_EQ(offset, 9u);
}

TEST(CheckEndOfIov, LeavesACursorThatItCannotReadAlone)
{
    const Vector vector({10});
    size_t offset = 20;
    int index = -1;
    check_end_of_iov(vector.data(), 1, &offset, &index);
    EXPECT_EQ(index, -1);
    index = 0;
    check_end_of_iov(nullptr, 1, &offset, &index);
    check_end_of_iov(vector.data(), 1, nullptr, &index);
    check_end_of_iov(vector.data(), 1, &offset, nullptr);
    check_end_of_iov(vector.data(), -5, &offset, &index);
    EXPECT_EQ(index, 0);
    EXPECT_EQ(offset, 20u);
}

TEST(LineariseIovec, GathersTheEntriesInOrderAndReturnsThePlaceBehindThem)
{
    const Vector vector({3, 0, 4});
    std::vector<uint8_t> buffer(7);
    EXPECT_EQ(linearise_iovec(vector.data(), 3, buffer.data(), 7), buffer.data() + 7);
    EXPECT_EQ(buffer, vector.flat());
}

TEST(LineariseIovec, CopiesTheTotalWhenTheRoomIsLarger)
{
    const Vector vector({3, 4});
    std::vector<uint8_t> buffer(20, 0xee);
    EXPECT_EQ(linearise_iovec(vector.data(), 2, buffer.data(), buffer.size()), buffer.data() + 7);
    EXPECT_EQ(slice(buffer, 0, 7), vector.flat());
    EXPECT_EQ(slice(buffer, 7, 13), std::vector<uint8_t>(13, 0xee));
}

TEST(LineariseIovec, StopsInsideAnEntryWhenTheRoomEnds)
{
    const Vector vector({3, 4, 5});
    std::vector<uint8_t> buffer(5);
    EXPECT_EQ(linearise_iovec(vector.data(), 3, buffer.data(), 5), buffer.data() + 5);
    EXPECT_EQ(buffer, slice(vector.flat(), 0, 5));
}

TEST(LineariseIovec, CopiesNothingForALengthOfZero)
{
    const Vector vector({3});
    uint8_t byte = 0xee;
    EXPECT_EQ(linearise_iovec(vector.data(), 1, &byte, 0), &byte);
    EXPECT_EQ(byte, 0xee);
}

TEST(LineariseIovec, CopiesNothingFromAnEmptyVectorOrWithoutABuffer)
{
    const Vector vector({3});
    uint8_t byte = 0xee;
    EXPECT_EQ(linearise_iovec(vector.data(), -1, &byte, 1), &byte);
    EXPECT_EQ(linearise_iovec(nullptr, 1, &byte, 1), &byte);
    EXPECT_EQ(linearise_iovec(vector.data(), 1, nullptr, 3), nullptr);
    EXPECT_EQ(byte, 0xee);
}

TEST(LineariseIovec, PassesOverAnEntryWithoutABasePointer)
{
    uint8_t bytes[] = {1, 2};
    const struct iovec vector[] = {{nullptr, 9}, {bytes, 2}};
    uint8_t buffer[11];
    EXPECT_EQ(linearise_iovec(vector, 2, buffer, sizeof(buffer)), buffer + 2);
    EXPECT_EQ(buffer[1], 2);
}

TEST(LineariseIovec, MovesAnEntryThatOverlapsItsPlace)
{
    char text[] = "--abcdef";
    const struct iovec entry = {text + 2, 6};
    EXPECT_EQ(linearise_iovec(&entry, 1, text, 6), text + 6);
    EXPECT_EQ(std::string(text), "abcdefef");
    delinearise_to_iovec(&entry, 1, text, 6);
    EXPECT_EQ(std::string(text), "ababcdef");
}

TEST(DelineariseToIovec, ScattersTheBytesOverTheEntriesInOrder)
{
    const Vector vector({3, 0, 4});
    const std::vector<uint8_t> bytes = {9, 8, 7, 6, 5, 4, 3};
    delinearise_to_iovec(vector.data(), 3, bytes.data(), bytes.size());
    EXPECT_EQ(vector.flat(), bytes);
}

TEST(DelineariseToIovec, LeavesTheEntriesBehindItsBytesAlone)
{
    const Vector vector({3, 4});
    const std::vector<uint8_t> bytes = {9, 8, 7, 6, 5};
    delinearise_to_iovec(vector.data(), 2, bytes.data(), bytes.size());
    EXPECT_EQ(vector.flat(), (std::vector<uint8_t>{9, 8, 7, 6, 5, 5, 6}));
}

TEST(DelineariseToIovec, EndsWithTheVectorWhenTheBytesAreMore)
{
    const Vector vector({2, 1});
    const std::vector<uint8_t> bytes = {9, 8, 7, 6, 5};
    delinearise_to_iovec(vector.data(), 2, bytes.data(), bytes.size());
    EXPECT_EQ(vector.flat(), (std::vector<uint8_t>{9, 8, 7}));
}

TEST(DelineariseToIovec, CopiesNothingWithoutBytesOrEntries)
{
    const Vector vector({2});
    const uint8_t byte = 9;
    delinearise_to_iovec(vector.data(), 1, &byte, 0);
    delinearise_to_iovec(vector.data(), 1, nullptr, 2);
    delinearise_to_iovec(vector.data(), -1, &byte, 1);
    delinearise_to_iovec(nullptr, 1, &byte, 1);
    const struct iovec no_base[] = {{nullptr, 1}};
    delinearise_to_iovec(no_base, 1, &byte, 1);
    EXPECT_EQ(vector.flat(), (std::vector<uint8_t>{0, 1}));
}

TEST(FillIovecSubset, PutsARangeOverTwoEntriesIntoTheScratchArray)
{
    const Vector vector({10, 10});
    struct iovec scratch[2];
    const subset range = cut(vector, 5, 10, scratch, 2);
    ASSERT_EQ(range.result, 0);
    EXPECT_EQ(range.out, scratch);
    ASSERT_EQ(range.count, 2);
    EXPECT_EQ(scratch[0].iov_base, vector.block(0).data() + 5);
    EXPECT_EQ(scratch[0].iov_len, 5u);
    EXPECT_EQ(scratch[1].iov_base, vector.block(1).data());
    EXPECT_EQ(scratch[1].iov_len, 5u);
}

TEST(FillIovecSubset, AllocatesAnArrayWhenTheScratchArrayIsTooSmall)
{
    const Vector vector({10, 10});
    struct iovec scratch[1] = {{nullptr, 77}};
    const subset range = cut(vector, 5, 10, scratch, 1);
    ASSERT_EQ(range.result, 0);
    EXPECT_NE(range.out, scratch);
    EXPECT_EQ(scratch[0].iov_len, 77u);
    ASSERT_EQ(range.count, 2);
    EXPECT_EQ(bytes_of(range.out, range.count), slice(vector.flat(), 5, 10));
    free(range.out);
}

TEST(FillIovecSubset, AllocatesAnArrayWithoutAScratchArray)
{
    const Vector vector({10});
    const subset absent = cut(vector, 2, 3, nullptr, 5);
    ASSERT_EQ(absent.result, 0);
    EXPECT_EQ(bytes_of(absent.out, absent.count), slice(vector.flat(), 2, 3));
    free(absent.out);
    struct iovec scratch[1];
    const subset negative = cut(vector, 2, 3, scratch, -1);
    ASSERT_EQ(negative.result, 0);
    EXPECT_NE(negative.out, scratch);
    free(negative.out);
}

TEST(FillIovecSubset, AdjustsBothEndsOfASingleEntry)
{
    const Vector vector({4, 10, 4});
    struct iovec scratch[3];
    const subset range = cut(vector, 6, 5, scratch, 3);
    ASSERT_EQ(range.result, 0);
    ASSERT_EQ(range.count, 1);
    EXPECT_EQ(scratch[0].iov_base, vector.block(1).data() + 2);
    EXPECT_EQ(scratch[0].iov_len, 5u);
}

TEST(FillIovecSubset, GivesTheWholeVector)
{
    const Vector vector({4, 0, 10});
    struct iovec scratch[3];
    const subset range = cut(vector, 0, 14, scratch, 3);
    ASSERT_EQ(range.result, 0);
    EXPECT_EQ(range.count, 3);
    EXPECT_EQ(bytes_of(range.out, range.count), vector.flat());
}

TEST(FillIovecSubset, EndsWithTheEntryThatHoldsTheLastByte)
{
    const Vector vector({4, 4, 4});
    struct iovec scratch[3];
    const subset range = cut(vector, 0, 8, scratch, 3);
    ASSERT_EQ(range.result, 0);
    EXPECT_EQ(range.count, 2);
}

TEST(FillIovecSubset, KeepsAnEmptyFirstEntryForAnOffsetOfZero)
{
    const Vector vector({0, 4});
    struct iovec scratch[2];
    const subset range = cut(vector, 0, 3, scratch, 2);
    ASSERT_EQ(range.result, 0);
    EXPECT_EQ(range.count, 2);
    EXPECT_EQ(scratch[0].iov_len, 0u);
    EXPECT_EQ(scratch[1].iov_len, 3u);
}

TEST(FillIovecSubset, GivesOneEmptyEntryForALengthOfZero)
{
    const Vector vector({4, 4});
    struct iovec scratch[2];
    const subset range = cut(vector, 1, 0, scratch, 2);
    ASSERT_EQ(range.result, 0);
    EXPECT_EQ(range.count, 1);
    EXPECT_EQ(scratch[0].iov_len, 0u);
}

TEST(FillIovecSubset, BeginsWithTheNextEntryForAnOffsetAtAnEntrysEnd)
{
    const Vector vector({10, 10, 10});
    for (const size_t len : {0u, 1u, 9u, 10u, 11u, 15u, 20u}) {
        SCOPED_TRACE(len);
        struct iovec scratch[3];
        const subset range = cut(vector, 10, len, scratch, 3);
        ASSERT_EQ(range.result, 0);
        EXPECT_EQ(scratch[0].iov_base, vector.block(1).data());
        EXPECT_EQ(bytes_of(range.out, range.count), slice(vector.flat(), 10, len));
    }
}

TEST(FillIovecSubset, GivesOneEmptyEntryForAnEmptyRangeAtTheEndOfTheData)
{
    const Vector vector({10, 10});
    struct iovec scratch[2];
    const subset range = cut(vector, 20, 0, scratch, 2);
    ASSERT_EQ(range.result, 0);
    EXPECT_EQ(range.count, 1);
    EXPECT_EQ(scratch[0].iov_len, 0u);
}

TEST(FillIovecSubset, FailsWhenTheRangeEndsBeyondTheData)
{
    const Vector vector({10, 10});
    struct iovec scratch[2];
    const struct {
        size_t offset, len;
    } ranges[] = {{0, 21}, {5, 16},       {10, 11},      {19, 2},          {20, 1},
                  {21, 0}, {SIZE_MAX, 1}, {5, SIZE_MAX}, {5, SIZE_MAX - 4}};
    for (const auto &range : ranges) {
        SCOPED_TRACE(testing::Message() << range.offset << " + " << range.len);
        const subset nothing = cut(vector, range.offset, range.len, scratch, 2);
        EXPECT_EQ(nothing.result, -1);
        EXPECT_EQ(nothing.out, nullptr);
        EXPECT_EQ(nothing.count, -7);
    }
}

TEST(FillIovecSubset, FailsWithoutEntriesOrAPlaceForTheResult)
{
    const Vector vector({10});
    struct iovec scratch[1], *out = nullptr;
    int count = 0;
    EXPECT_EQ(fill_iovec_subset(&out, &count, 0, 0, scratch, 1, vector.data(), 0), -1);
    EXPECT_EQ(fill_iovec_subset(&out, &count, 0, 0, scratch, 1, vector.data(), -1), -1);
    EXPECT_EQ(fill_iovec_subset(&out, &count, 0, 0, scratch, 1, nullptr, 1), -1);
    EXPECT_EQ(fill_iovec_subset(nullptr, &count, 1, 0, scratch, 1, vector.data(), 1), -1);
    EXPECT_EQ(fill_iovec_subset(&out, nullptr, 1, 0, scratch, 1, vector.data(), 1), -1);
}

TEST(FillIovecSubset, FailsWhenItsArrayCannotBeAllocated)
{
    const Vector vector({10, 10});
    const failing_heap::after now(0);
    const subset nothing = cut(vector, 5, 10);
    EXPECT_EQ(nothing.result, -1);
    EXPECT_EQ(nothing.out, nullptr);
    EXPECT_EQ(nothing.count, -7);
}

TEST(FillIovecSubset, LeavesTheCallersVectorAlone)
{
    const Vector vector({10, 10});
    const std::vector<struct iovec> before(vector.data(), vector.data() + 2);
    struct iovec scratch[2];
    ASSERT_EQ(cut(vector, 5, 10, scratch, 2).result, 0);
    EXPECT_EQ(memcmp(before.data(), vector.data(), sizeof(struct iovec) * 2), 0);
}

// Every range of random vectors, empty entries among them, against the flat bytes.
TEST(FillIovecSubset, CoversTheBytesOfAnyRangeOfAnyVector)
{
    std::mt19937 random(1);
    for (int round = 0; round < 60; round++) {
        std::vector<size_t> lengths(1 + random() % 5);
        for (size_t &length : lengths)
            length = random() % 3 == 0 ? 0 : random() % 7;
        const Vector vector(lengths);
        const std::vector<uint8_t> flat = vector.flat();
        for (size_t offset = 0; offset <= flat.size(); offset++) {
            for (size_t len = 0; offset + len <= flat.size(); len++) {
                struct iovec scratch[5];
                const subset range = cut(vector, offset, len, scratch, 5);
                ASSERT_EQ(range.result, 0);
                ASSERT_GE(range.count, 1);
                ASSERT_LE(range.count, vector.count());
                ASSERT_EQ(bytes_of(range.out, range.count), slice(flat, offset, len));
            }
        }
    }
}

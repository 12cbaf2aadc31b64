// Bytes that end at a page that can't be touched: any access behind them ends the test, sanitizer or not.
#ifndef QVLIB_TESTS_GUARDED_BYTES_H
#define QVLIB_TESTS_GUARDED_BYTES_H

#include <cstddef>
#include <cstdint>
#include <cstdlib>
#include <cstring>
#include <string_view>
#include <sys/mman.h>
#include <unistd.h>

class guarded_bytes
{
  public:
    explicit guarded_bytes(size_t size) : size_(size)
    {
        const auto page = static_cast<size_t>(sysconf(_SC_PAGESIZE));
        const size_t pages = (size + page - 1) / page;
        mapped_ = (pages + 1) * page;
        void *map = mmap(nullptr, mapped_, PROT_READ | PROT_WRITE, MAP_PRIVATE | MAP_ANONYMOUS, -1, 0);
        if (map == MAP_FAILED || mprotect(static_cast<char *>(map) + pages * page, page, PROT_NONE) != 0)
            abort();
        map_ = map;
        bytes_ = static_cast<uint8_t *>(map) + pages * page - size;
    }
    explicit guarded_bytes(std::string_view text) : guarded_bytes(text.size())
    {
        if (!text.empty())
            memcpy(bytes_, text.data(), text.size());
    }
    ~guarded_bytes()
    {
        munmap(map_, mapped_);
    }
    guarded_bytes(const guarded_bytes &) = delete;
    guarded_bytes &operator=(const guarded_bytes &) = delete;

    uint8_t *data()
    {
        return bytes_;
    }
    char *text()
    {
        return reinterpret_cast<char *>(bytes_);
    }
    size_t size() const
    {
        return size_;
    }
    std::string_view view() const
    {
        return {reinterpret_cast<const char *>(bytes_), size_};
    }

  private:
    size_t size_, mapped_;
    void *map_;
    uint8_t *bytes_;
};

#endif

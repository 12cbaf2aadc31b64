// A port of 127.0.0.1 that messages are sent from and come to.
#ifndef QVL_MESSAGE_PORT_H
#define QVL_MESSAGE_PORT_H

#include <chrono>
#include <cstdint>
#include <optional>
#include <string>
#include <string_view>
#include <qvlib/transport.h>

namespace qvl
{

// A message, its body behind the header. `from` is the port that sent its last fragment.
struct message {
    corelink_msghdr header;
    std::string body;
    std::uint16_t from;

    unsigned type() const
    {
        return header.type_flags >> 24;
    }
    std::string_view name() const;

    // Whether the body is shorter or longer than param2 says.
    bool is_cut() const;
    bool is_joined() const;
    // What became of the message in words, "" when nothing did.
    std::string damage() const;
};

class message_port
{
  public:
    using clock = std::chrono::steady_clock;

    // Opens a port; 0 takes a free one. Throws failure, also when another process has it.
    explicit message_port(std::uint16_t port);
    message_port(const message_port &) = delete;
    message_port &operator=(const message_port &) = delete;
    ~message_port();

    std::uint16_t number() const;

    // From now on only `peer`'s messages arrive, and receive fails when nobody has that port.
    void connect_to(std::uint16_t peer);

    // Sends a message whose param2 is the length of its body. Throws failure.
    void send(std::uint16_t to, unsigned type, std::uint32_t param1, const std::string &name,
              std::string_view body);

    // Waits for a message. Throws failure.
    message receive();

    // The same, up to a moment; nothing when none has begun by then. Throws failure, also for a message whose
    // end does not come.
    std::optional<message> receive_until(clock::time_point deadline);

  private:
    int fd_;
    std::uint16_t peer_ = 0;
};

} // namespace qvl

#endif

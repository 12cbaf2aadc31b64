// The seeded documents that scripts/bench compares on, each as corelink text and as the equal JSON.
#pragma once

#include <cstdint>
#include <cstdio>
#include <random>
#include <string>

namespace bench
{

// Writes one document in either language, with the same white space.
class document
{
  public:
    document(bool json, bool pretty) : json_(json), pretty_(pretty)
    {
        if (json_)
            open("{");
    }

    std::string take()
    {
        if (json_)
            close("}");
        return std::move(text_);
    }

    document &open_struct(const std::string &tag = {})
    {
        item(tag);
        open("{");
        return *this;
    }
    document &close_struct()
    {
        close("}");
        return *this;
    }
    document &open_array(const std::string &tag)
    {
        item(tag);
        open("[");
        return *this;
    }
    document &close_array()
    {
        close("]");
        return *this;
    }
    // A text without characters that need an escape, or with \" alone, which both languages write alike.
    document &string(const std::string &tag, const std::string &value)
    {
        item(tag);
        text_ += '"' + value + '"';
        return *this;
    }
    document &number(const std::string &tag, uint64_t value)
    {
        item(tag);
        text_ += std::to_string(value);
        return *this;
    }
    document &boolean(const std::string &tag, bool value)
    {
        item(tag);
        text_ += value ? "true" : "false";
        return *this;
    }

  private:
    void line()
    {
        if (pretty_)
            text_.append(1, '\n').append(static_cast<size_t>(4 * depth_), ' ');
    }
    void open(const char *brace)
    {
        text_ += brace;
        depth_++;
        first_ = true;
    }
    void close(const char *brace)
    {
        depth_--;
        line();
        text_ += brace;
        first_ = false;
    }
    void item(const std::string &tag)
    {
        if (!first_)
            text_ += ',';
        line();
        first_ = false;
        if (tag.empty())
            return;
        if (json_)
            text_ += '"' + tag + (pretty_ ? "\": " : "\":");
        else
            text_ += tag + (pretty_ ? " = " : "=");
    }

    bool json_, pretty_, first_ = true;
    int depth_ = 0;
    std::string text_;
};

inline std::string formatted(const char *format, unsigned int value)
{
    char text[64];
    snprintf(text, sizeof text, format, value & 0xff, value >> 8 & 0xff, value >> 16 & 0xff);
    return text;
}

// A bridge appliance with `ports` ports, about 1.1 KB each. Without arrays their elements are structs with
// tags.
inline std::string configuration(int ports, bool json, bool arrays, unsigned int seed)
{
    std::mt19937 random(seed);
    document doc(json, true);
    doc.open_struct("unit")
        .string("name", "bridge-07")
        .string("serial", "QB-0042-1187")
        .number("slot", 1)
        .close_struct();
    for (int i = 0; i < ports; i++) {
        doc.open_struct("port" + std::to_string(i));
        doc.string("wwn", formatted("50:01:43:80:00:%02x:%02x:%02x", static_cast<unsigned int>(random())));
        doc.string("alias", "Rack 12, shelf " + std::to_string(i / 8) + ", slot " + std::to_string(i % 8));
        doc.number("speed", 8U << random() % 3).boolean("enabled", random() % 4 != 0).string("link", "up");
        doc.open_struct("counters");
        for (const char *name : {"rx_frames", "tx_frames", "crc", "lip", "los", "resets", "timeouts",
                                 "discards", "link_failures"})
            doc.number(name, random() % 3 == 0 ? 0 : random());
        doc.close_struct();
        doc.open_struct("sfp")
            .string("vendor", "ACME OPTICS")
            .string("part", "SFP-8G-SW")
            .string("revision", "A2");
        doc.number("wavelength", 850).boolean("copper", false).close_struct();
        doc.open_struct("login")
            .string("state", "fabric")
            .number("fcid", random() >> 8)
            .number("credits", 16);
        doc.boolean("persistent", true).close_struct();
        arrays ? doc.open_array("targets") : doc.open_struct("targets");
        for (unsigned int lun = 0; lun < 3; lun++) {
            doc.open_struct(arrays ? "" : "target" + std::to_string(lun))
                .number("lun", lun)
                .string("id", formatted("naa.6001%02x%02x%02x", static_cast<unsigned int>(random())));
            doc.boolean("online", true).close_struct();
        }
        arrays ? doc.close_array() : doc.close_struct();
        doc.string("note", "moved from the left unit at the last service").close_struct();
    }
    return doc.take();
}

inline std::string configuration(int ports, bool json)
{
    return configuration(ports, json, true, 7);
}

inline std::string flat_members(int items, bool json)
{
    std::mt19937 random(7);
    document doc(json, false);
    for (int i = 0; i < items; i++)
        doc.number("member_" + std::to_string(i), random());
    return doc.take();
}

// The same members from the middle on.
inline std::string turned_members(int items, bool json)
{
    document doc(json, false);
    for (int i = 0; i < items; i++)
        doc.number("member_" + std::to_string((i + items / 2) % items), static_cast<unsigned int>(i));
    return doc.take();
}

// Strings of 230 bytes with ten escaped quotes each.
inline std::string long_strings(int items, bool json)
{
    document doc(json, false);
    std::string value;
    for (int i = 0; i < 10; i++)
        value += "a quoted \\\"word\\\" here ";
    for (int i = 0; i < items; i++)
        doc.string("text_" + std::to_string(i), value);
    return doc.take();
}

inline std::string number_lists(int items, bool json)
{
    std::mt19937 random(7);
    document doc(json, false);
    for (int i = 0; i < items / 1000; i++) {
        doc.open_array("list_" + std::to_string(i));
        for (int k = 0; k < 1000; k++)
            doc.number({}, random() >> random() % 28);
        doc.close_array();
    }
    return doc.take();
}

// Status messages of 200 to 500 bytes.
inline std::string status_message(int index, bool json)
{
    std::mt19937 random(static_cast<unsigned int>(index));
    document doc(json, false);
    doc.string("unit", "left").number("sequence", static_cast<unsigned int>(index)).string("state", "online");
    doc.open_struct("port")
        .number("id", random() % 48)
        .string("link", "up")
        .number("speed", 16)
        .close_struct();
    const unsigned int counters = 4 + static_cast<unsigned int>(random() % 11);
    for (unsigned int i = 0; i < counters; i++)
        doc.number("counter_" + std::to_string(i), random());
    doc.open_array("events").string({}, "link up").string({}, "login 50:01:43:80").close_array();
    return doc.take();
}

} // namespace bench

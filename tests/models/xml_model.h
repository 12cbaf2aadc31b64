// A second XML reader: it knows the transition table as words, takes one byte at a time, and writes down what
// happens. Without a thought for cost: what the library's reader is compared with.
#ifndef QVLIB_TESTS_MODELS_XML_MODEL_H
#define QVLIB_TESTS_MODELS_XML_MODEL_H

#include <cstddef>
#include <cstdio>
#include <cstring>
#include <map>
#include <sstream>
#include <string>
#include <string_view>
#include <utility>
#include <vector>

namespace xml_model
{

struct line {
    unsigned state;
    const char *inputs;
    unsigned next;
    const char *action;
};

// The first line that fits decides.
inline const line table[] = {
    {0, "<", 1, "flush character data"},
    {0, "&", 9, "none"},
    {0, ">", 0, "error"},
    {0, "any", 0, "append to character data"},
    {1, "space", 1, "none"},
    {1, "a-z A-Z 0-9", 2, "append to element name"},
    {1, "/", 3, "none"},
    {1, "!", 12, "none"},
    {1, "?", 10, "none"},
    {12, "-", 13, "none"},
    {12, "D", 11, "none"},
    {10, ">", 0, "none"},
    {10, "any", 10, "none"},
    {9, ";", 0, "end entity"},
    {9, "a-z 0-9", 9, "append to entity name"},
    {11, ">", 0, "none"},
    {11, "any", 11, "none"},
    {2, "a-z A-Z 0-9", 2, "append to element name"},
    {2, "space", 4, "none"},
    {2, ">", 0, "start element"},
    {2, "/", 8, "none"},
    {3, "a-z A-Z 0-9", 3, "append to element name"},
    {3, ">", 0, "end element"},
    {4, "space tab newline", 4, "none"},
    {4, "a-z A-Z", 5, "append to attribute name"},
    {5, "a-z A-Z -", 5, "append to attribute name"},
    {5, "=", 6, "none"},
    {6, "\"", 7, "none"},
    {4, "/", 8, "none"},
    {4, ">", 0, "start element"},
    {8, ">", 0, "empty element"},
    {7, "\"", 4, "attribute complete"},
    {7, "any", 7, "append to attribute value"},
    {13, "-", 14, "none"},
    {13, "any", 0, "error"},
    {14, "-", 15, "append to comment"},
    {14, "any", 14, "append to comment"},
    {15, "-", 16, "none"},
    {15, "any", 14, "append to comment"},
    {16, ">", 0, "comment complete"},
    {16, "any", 0, "error"},
};

inline bool fits(const line &candidate, char byte)
{
    std::istringstream words(candidate.inputs);
    for (std::string word; words >> word;) {
        if (word == "any" || (word == "space" && byte == ' ') || (word == "tab" && byte == '\t') ||
            (word == "newline" && byte == '\n') || (word.size() == 1 && byte == word[0]) ||
            (word.size() == 3 && word[1] == '-' && byte >= word[0] && byte <= word[2]))
            return true;
    }
    return false;
}

// The line that decides for a state and a byte, nullptr for none.
inline const line *decide(unsigned state, char byte)
{
    static const std::vector<const line *> known = [] {
        std::vector<const line *> found(17 * 256);
        for (size_t i = 0; i < found.size(); i++) {
            for (const line &candidate : table) {
                if (!found[i] && candidate.state == i / 256 && fits(candidate, static_cast<char>(i % 256)))
                    found[i] = &candidate;
            }
        }
        return found;
    }();
    return known[state * 256 + static_cast<unsigned char>(byte)];
}

// Which callbacks there are.
struct wanted {
    bool start = true, end = true, characters = true, comment = true;
};

struct outcome {
    std::vector<std::string> events; // each ends with the bytes that had been read
    int result = 0;
    size_t read = 0;
    size_t unfinished_attributes = 0; // of a tag that was cut short
};

class reader
{
  public:
    reader(std::string_view document, wanted callbacks) : document_(document), callbacks_(callbacks)
    {
    }

    outcome read()
    {
        while (done_.read < document_.size() && done_.result == 0)
            take(document_[done_.read]);
        done_.unfinished_attributes = attributes_.size();
        return done_;
    }

  private:
    static constexpr size_t most = 256;

    void tell(const std::string &event)
    {
        done_.events.push_back(event + " @" + std::to_string(done_.read));
    }

    void fail(const std::string &message)
    {
        tell("error " + message);
        done_.result = -1;
    }

    // What a callback that gets no length sees.
    static std::string to_nul(const std::string &text)
    {
        return text.c_str();
    }

    void take(char byte)
    {
        done_.read++;
        if (byte == '\n')
            newlines_++;
        const line *found = decide(state_, byte);
        if (!found) {
            const auto code = static_cast<unsigned char>(byte);
            char shown[16];
            snprintf(shown, sizeof(shown), code > 31 && code < 127 ? "'%c'" : "%#.2x", code);
            fail("Invalid XML Document: Invalid State (" + std::to_string(state_) + ": " + shown +
                 ") on line " + std::to_string(newlines_) + ".");
            return;
        }
        act(found->action, byte);
        state_ = found->next;
    }

    void append(std::string &buffer, char byte)
    {
        if (buffer.size() > most - 1)
            fail("XML identifier exceeded buffer");
        else
            buffer += byte;
    }

    void append_text(std::string &buffer, char byte)
    {
        if (buffer.size() > most - 1) {
            if (callbacks_.characters)
                tell("characters " + buffer);
            buffer.clear();
        }
        buffer += byte;
    }

    void flush()
    {
        if (text_.empty())
            return;
        if (!callbacks_.characters) {
            fail("A required callback is missing");
            return;
        }
        tell("characters " + text_);
        text_.clear();
    }

    void start()
    {
        std::string event = "start " + element_;
        for (auto at = attributes_.rbegin(); at != attributes_.rend(); ++at)
            event += " " + to_nul(at->first) + "=" + to_nul(at->second);
        if (callbacks_.start)
            tell(event);
    }

    void end_entity()
    {
        const std::map<std::string, char> known = {
            {"quot", '\x22'}, {"amp", '\x26'}, {"apos", '\x27'}, {"lt", '\x3c'}, {"gt", '\x3e'}};
        const auto found = known.find(entity_);
        if (found != known.end())
            append_text(text_, found->second);
    }

    void end()
    {
        if (!callbacks_.end) {
            fail("A required callback is missing");
            return;
        }
        tell("end " + element_);
        element_.clear();
    }

    void complete(std::string_view action)
    {
        if (action == "attribute complete") {
            attributes_.emplace_back(name_, value_);
            name_.clear();
            value_.clear();
            return;
        }
        if (action == "comment complete") {
            if (callbacks_.comment)
                tell("comment " + to_nul(comment_));
            comment_.clear();
            return;
        }
        start();
        if (action == "empty element" && callbacks_.end)
            tell("end " + element_);
        element_.clear();
        attributes_.clear();
    }

    void act(std::string_view action, char byte)
    {
        if (action == "append to element name")
            append(element_, byte);
        else if (action == "append to attribute name")
            append(name_, byte);
        else if (action == "append to attribute value")
            append(value_, byte);
        else if (action == "append to entity name")
            append(entity_, byte);
        else if (action == "append to character data")
            append_text(text_, byte);
        else if (action == "append to comment")
            append_text(comment_, byte);
        else if (action == "flush character data")
            flush();
        else if (action == "end entity")
            end_entity();
        else if (action == "end element")
            end();
        else if (action == "error")
            fail("Invalid XML Document");
        else if (action != "none")
            complete(action);
    }

    std::string_view document_;
    wanted callbacks_;
    outcome done_;
    unsigned state_ = 0, newlines_ = 0;
    std::string element_, name_, value_, text_, comment_, entity_;
    std::vector<std::pair<std::string, std::string>> attributes_;
};

inline outcome read(std::string_view document, wanted callbacks = {})
{
    return reader(document, callbacks).read();
}

} // namespace xml_model

#endif

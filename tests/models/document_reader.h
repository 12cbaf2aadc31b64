// A slow and plain reader of documents: a scanner and a recursive descent parser.
#ifndef QVLIB_TESTS_MODELS_DOCUMENT_READER_H
#define QVLIB_TESTS_MODELS_DOCUMENT_READER_H

#include <cstdint>
#include <cstring>
#include <optional>
#include <string>

#include "models/document_model.h"

namespace document_model
{

enum class token { end, identifier, string, number, boolean, punctuation, stray };

inline bool is_letter(char c)
{
    return (c >= 'a' && c <= 'z') || (c >= 'A' && c <= 'Z') || c == '_';
}

inline bool is_digit(char c)
{
    return c >= '0' && c <= '9';
}

inline int hex_digit(char c)
{
    if (is_digit(c))
        return c - '0';
    if (c >= 'a' && c <= 'f')
        return c - 'a' + 10;
    return c >= 'A' && c <= 'F' ? c - 'A' + 10 : -1;
}

class model_reader
{
  public:
    explicit model_reader(const std::string &text) : text_(text)
    {
        next();
    }

    // The document's root, or nothing for a syntax error.
    std::optional<value> read()
    {
        value root = container(CLPARSE_TYPE_STRUCT);
        root.tag = "head";
        if (!members(root) || kind_ != token::end)
            return std::nullopt;
        return root;
    }

  private:
    char at(size_t where) const
    {
        return where < text_.size() ? text_[where] : '\0';
    }

    void next()
    {
        while (at(pos_) == ' ' || at(pos_) == '\t' || at(pos_) == '\r' || at(pos_) == '\n')
            pos_++;
        if (pos_ >= text_.size()) {
            kind_ = token::end;
            return;
        }
        const char c = at(pos_);
        if (is_letter(c))
            word();
        else if (is_digit(c))
            number();
        else if (c == '"')
            string();
        else {
            kind_ = strchr(",=.{}[]", c) && c ? token::punctuation : token::stray;
            lexeme_ = c;
            pos_++;
        }
    }

    void word()
    {
        lexeme_.clear();
        while (is_letter(at(pos_)) || is_digit(at(pos_)))
            lexeme_ += text_[pos_++];
        kind_ = lexeme_ == "true" || lexeme_ == "false" ? token::boolean : token::identifier;
    }

    void number()
    {
        kind_ = token::number;
        number_ = 0;
        const bool hex =
            at(pos_) == '0' && (at(pos_ + 1) == 'x' || at(pos_ + 1) == 'X') && hex_digit(at(pos_ + 2)) >= 0;
        const unsigned base = hex ? 16 : 10;
        if (hex)
            pos_ += 2;
        bool overflow = false;
        for (; hex ? hex_digit(at(pos_)) >= 0 : is_digit(at(pos_)); pos_++) {
            const auto digit = static_cast<unsigned>(hex_digit(at(pos_)));
            overflow = overflow || number_ > (UINT64_MAX - digit) / base;
            number_ = number_ * base + digit;
        }
        if (overflow)
            number_ = UINT64_MAX;
    }

    void string()
    {
        std::string contents;
        for (size_t i = pos_ + 1; i < text_.size(); i++) {
            if (text_[i] == '"') {
                kind_ = token::string;
                lexeme_ = contents;
                pos_ = i + 1;
                return;
            }
            if (text_[i] != '\\') {
                contents += text_[i];
                continue;
            }
            i++;
            if (at(i) == '\n' || i >= text_.size())
                break;
            if (text_[i] != '"' && text_[i] != '\\')
                contents += '\\';
            contents += text_[i];
        }
        kind_ = token::stray;
        pos_++;
    }

    bool is(char c) const
    {
        return kind_ == token::punctuation && lexeme_[0] == c;
    }
    bool take(char c)
    {
        if (!is(c))
            return false;
        next();
        return true;
    }

    bool members(value &into)
    {
        do {
            if (!member(into))
                return false;
        } while (take(','));
        return true;
    }

    bool member(value &into)
    {
        if (kind_ != token::identifier)
            return false;
        const std::string name = lexeme_;
        next();
        if (take('.')) {
            value *prefix = nullptr;
            for (value &child : into.children)
                if (child.tag == name)
                    prefix = &child; // the last one
            if (!prefix) {
                prefix = &into.children.emplace_back(container(CLPARSE_TYPE_STRUCT));
                prefix->tag = name;
            }
            return prefix->is_container() && member(*prefix);
        }
        value made;
        if (take('=') && !read_value(made))
            return false;
        made.tag = name;
        into.children.push_back(made);
        return true;
    }

    bool read_value(value &made)
    {
        const token kind = kind_;
        if (kind == token::string || kind == token::number || kind == token::boolean) {
            made.type = kind == token::string   ? CLPARSE_TYPE_STRING
                        : kind == token::number ? CLPARSE_TYPE_NUMBER
                                                : CLPARSE_TYPE_BOOLEAN;
            if (kind == token::string)
                made.text = lexeme_;
            if (kind == token::number)
                made.number = number_;
            if (kind == token::boolean)
                made.boolean = lexeme_ != "false";
            next();
            return true;
        }
        if (take('{')) {
            made = container(CLPARSE_TYPE_STRUCT);
            return take('}') || (members(made) && take('}'));
        }
        if (!take('['))
            return false;
        made = container(CLPARSE_TYPE_ARRAY);
        if (take(']'))
            return true;
        do {
            if (!read_value(made.children.emplace_back()))
                return false;
        } while (take(','));
        return take(']');
    }

    const std::string &text_;
    size_t pos_ = 0;
    token kind_ = token::end;
    std::string lexeme_;
    uint64_t number_ = 0;
};

} // namespace document_model

#endif

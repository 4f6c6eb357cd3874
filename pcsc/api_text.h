// The texts of the A and W forms of one call, and the one rule by which a
// text crosses between them: a narrow character is a byte, and it widens
// to the wide character of the same number (0 to 255); a wide character
// narrows to the byte of its number, which one above 255 does not have.
// Reader names are kept narrow and shown wide by this rule, so a name that
// a W call hands out finds its reader again through any W call; the tables
// of the W-only calls keep their names wide, and the narrow form's texts
// are widened on the way in and narrowed on the way out.
#pragma once

#include <cstddef>
#include <string>
#include <type_traits>
#include <vector>

// A byte is widened by its number, never by its sign: 0xE9 is L'\xE9'
// whatever the signedness of char.
inline wchar_t widened(char c) { return static_cast<wchar_t>(static_cast<unsigned char>(c)); }
inline wchar_t widened(wchar_t c) { return c; }

inline std::wstring wideText(const std::string& text)
{
    std::wstring out;
    out.reserve(text.size());
    for (char c : text) out.push_back(widened(c));
    return out;
}
inline std::wstring wideText(const char* text) { return wideText(std::string(text)); }
inline std::wstring wideText(const wchar_t* text) { return std::wstring(text); }

// The text in the form of Char, for output: a wide character past the
// narrow range goes out as '?'.
template <typename Char>
std::basic_string<Char> textAs(const std::wstring& text)
{
    std::basic_string<Char> out;
    out.reserve(text.size());
    for (wchar_t c : text) out.push_back(sizeof(Char) == 1 && static_cast<unsigned long>(c) > 0xFF ? Char('?') : Char(c));
    return out;
}

// A narrow text (a reader's name) in the form of Char: itself, or widened.
template <typename Char>
std::basic_string<Char> textAs(const std::string& text)
{
    if constexpr (sizeof(Char) == 1)
        return text;
    else
        return wideText(text);
}

// The narrow text that a host's text names, for a lookup among narrow
// names: false when a character has no byte, since no such name exists.
inline bool narrowedExactly(const char* text, std::string& out)
{
    out = text;
    return true;
}
inline bool narrowedExactly(const wchar_t* text, std::string& out)
{
    out.clear();
    for (const wchar_t* c = text; *c != L'\0'; ++c) {
        if (static_cast<unsigned long>(*c) > 0xFF) return false;
        out.push_back(static_cast<char>(static_cast<unsigned char>(*c)));
    }
    return true;
}

// Whether the `length` characters at `text` spell the 7-bit text `ascii`,
// with no regard to the case of A to Z: the rule by which the names of the
// reader groups and of the plug-and-play reader are compared.
template <typename Char>
bool sameIgnoringCase(const Char* text, size_t length, const char* ascii)
{
    const auto lower = [](unsigned long c) { return c >= 'A' && c <= 'Z' ? c + ('a' - 'A') : c; };
    size_t i = 0;
    for (; i < length; ++i) {
        if (ascii[i] == '\0') return false;
        const auto c = static_cast<unsigned long>(static_cast<std::make_unsigned_t<Char>>(text[i]));
        if (lower(c) != lower(static_cast<unsigned char>(ascii[i]))) return false;
    }
    return ascii[i] == '\0';
}

// The names of a multi-string, up to its empty name.
template <typename Char>
std::vector<std::wstring> namesOf(const Char* multiString)
{
    std::vector<std::wstring> names;
    for (const Char* name = multiString; name != nullptr && *name != Char(0);) {
        std::wstring one;
        for (; *name != Char(0); ++name) one.push_back(widened(*name));
        names.push_back(one);
        ++name;
    }
    return names;
}

// Names as one multi-string: each with its NUL, and one more NUL.
template <typename Char>
std::basic_string<Char> multiString(const std::vector<std::wstring>& names)
{
    std::basic_string<Char> out;
    for (const std::wstring& name : names) {
        out += textAs<Char>(name);
        out.push_back(Char(0));
    }
    out.push_back(Char(0));
    return out;
}

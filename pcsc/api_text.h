// The texts of the A and W forms of one call: every table keeps its names
// wide, and the narrow form's texts are widened on the way in and narrowed
// on the way out, character by character, as the reader names are.
#pragma once

#include <string>
#include <type_traits>
#include <vector>

inline std::wstring wideText(const char* text) { return std::wstring(text, text + std::char_traits<char>::length(text)); }
inline std::wstring wideText(const wchar_t* text) { return std::wstring(text); }

// A character past the narrow range goes out as '?'.
template <typename Char>
std::basic_string<Char> textAs(const std::wstring& text)
{
    std::basic_string<Char> out;
    for (wchar_t c : text) out.push_back(sizeof(Char) == 1 && static_cast<unsigned long>(c) > 0xFF ? Char('?') : Char(c));
    return out;
}

// The names of a multi-string, up to its empty name.
template <typename Char>
std::vector<std::wstring> namesOf(const Char* multiString)
{
    std::vector<std::wstring> names;
    for (const Char* name = multiString; name != nullptr && *name != Char(0);) {
        std::wstring one;
        for (; *name != Char(0); ++name) one.push_back(static_cast<wchar_t>(static_cast<std::make_unsigned_t<Char>>(*name)));
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

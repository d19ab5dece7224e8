// The usage report's reader and its three writers over files of any content: the input is
// cut at each byte 0x01 into the configuration, WAN 1's billing, hourly and daily files and
// the newest client hour file. The text, HTML and JSON reports are written, and the JSON
// document must be valid JSON (checked here by a strict parser of its own).
#include "fuzz_root.h"

#include "tools/report/report_html.h"
#include "tools/report/report_json.h"
#include "tools/report/report_text.h"
#include "tools/report/usage_reader.h"

#include <cctype>
#include <cstdlib>
#include <sstream>
#include <string>
#include <vector>

namespace {

// A strict JSON parser that only says whether text is one valid JSON value.
class JsonCheck {
public:
    explicit JsonCheck(const std::string& text) : s_(text) {}

    bool valid()
    {
        space();
        if (!value(0))
            return false;
        space();
        return i_ == s_.size();
    }

private:
    bool value(int depth)
    {
        if (depth > 64 || i_ >= s_.size())
            return false;
        switch (s_[i_]) {
        case '{': return object(depth);
        case '[': return array(depth);
        case '"': return string();
        case 't': return word("true");
        case 'f': return word("false");
        case 'n': return word("null");
        default: return number();
        }
    }
    bool object(int depth)
    {
        ++i_;
        space();
        if (peek('}'))
            return ++i_, true;
        for (;;) {
            space();
            if (!peek('"') || !string())
                return false;
            space();
            if (!peek(':'))
                return false;
            ++i_;
            space();
            if (!value(depth + 1))
                return false;
            space();
            if (peek('}'))
                return ++i_, true;
            if (!peek(','))
                return false;
            ++i_;
        }
    }
    bool array(int depth)
    {
        ++i_;
        space();
        if (peek(']'))
            return ++i_, true;
        for (;;) {
            space();
            if (!value(depth + 1))
                return false;
            space();
            if (peek(']'))
                return ++i_, true;
            if (!peek(','))
                return false;
            ++i_;
        }
    }
    bool string()
    {
        ++i_;
        while (i_ < s_.size()) {
            const unsigned char c = static_cast<unsigned char>(s_[i_]);
            if (c == '"')
                return ++i_, true;
            if (c < 0x20)
                return false;
            if (c == '\\') {
                if (++i_ >= s_.size())
                    return false;
                const char e = s_[i_];
                if (e == 'u') {
                    for (int k = 1; k <= 4; ++k)
                        if (i_ + k >= s_.size() || !std::isxdigit(static_cast<unsigned char>(s_[i_ + k])))
                            return false;
                    i_ += 5;
                } else if (std::string("\"\\/bfnrt").find(e) != std::string::npos) {
                    ++i_;
                } else {
                    return false;
                }
            } else if (c < 0x80) {
                ++i_;
            } else if (!utf8()) {
                return false;
            }
        }
        return false;
    }
    // One well-formed UTF-8 sequence of two to four bytes.
    bool utf8()
    {
        const auto at = [&](size_t k) { return static_cast<unsigned char>(s_[k]); };
        const unsigned char c = at(i_);
        size_t n = c >= 0xC2 && c <= 0xDF ? 2 : c >= 0xE0 && c <= 0xEF ? 3 : c >= 0xF0 && c <= 0xF4 ? 4 : 0;
        if (n == 0 || i_ + n > s_.size())
            return false;
        unsigned long code = c & (n == 2 ? 0x1F : n == 3 ? 0x0F : 0x07);
        for (size_t k = 1; k < n; ++k) {
            if ((at(i_ + k) & 0xC0) != 0x80)
                return false;
            code = code << 6 | (at(i_ + k) & 0x3F);
        }
        const unsigned long least[] = {0, 0, 0x80, 0x800, 0x10000};
        if (code < least[n] || code > 0x10FFFF || (code >= 0xD800 && code <= 0xDFFF))
            return false;
        i_ += n;
        return true;
    }
    bool number()
    {
        const size_t start = i_;
        if (peek('-'))
            ++i_;
        if (!digits())
            return false;
        if (s_[start + (s_[start] == '-')] == '0' && i_ - start - (s_[start] == '-') > 1)
            return false;  // no leading zeros
        if (peek('.')) {
            ++i_;
            if (!digits())
                return false;
        }
        return true;
    }
    bool digits()
    {
        const size_t start = i_;
        while (i_ < s_.size() && s_[i_] >= '0' && s_[i_] <= '9')
            ++i_;
        return i_ > start;
    }
    bool word(const char* w)
    {
        const std::string text(w);
        if (s_.compare(i_, text.size(), text) != 0)
            return false;
        i_ += text.size();
        return true;
    }
    bool peek(char c) const { return i_ < s_.size() && s_[i_] == c; }
    void space()
    {
        while (i_ < s_.size() && (s_[i_] == ' ' || s_[i_] == '\n' || s_[i_] == '\t' || s_[i_] == '\r'))
            ++i_;
    }

    const std::string& s_;
    size_t i_ = 0;
};

const char* const FILES[] = {
    "/usr/local/velto/conf/config",
    "/var/run/korel/wan1/link_usage_billing.csv",
    "/var/run/korel/wan1/link_usage_hourly.csv",
    "/var/run/korel/wan1/link_usage_daily.csv",
    "/var/run/korel/client_usage_hourly/2024-03-20-14.csv",
};

} // namespace

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size)
{
    fuzz::world();
    std::vector<std::string> pieces(1);
    for (size_t i = 0; i < size; ++i) {
        if (data[i] == 0x01 && pieces.size() < sizeof FILES / sizeof FILES[0])
            pieces.emplace_back();
        else
            pieces.back() += static_cast<char>(data[i]);
    }
    pieces.resize(sizeof FILES / sizeof FILES[0]);
    for (size_t i = 0; i < pieces.size(); ++i)
        fuzz::put_text(FILES[i], pieces[i]);

    const report::Report r = report::read_report(fuzz::world().root);
    std::ostringstream text, raw, summary, html, json;
    report::write_text_report(text, r, report::TextOptions{});
    report::write_text_report(raw, r, report::TextOptions{7, true, false});
    report::write_text_report(summary, r, report::TextOptions{0, false, true});
    report::write_html_report(html, r, false);
    report::write_json_report(json, r);
    const std::string document = json.str();
    if (!JsonCheck(document).valid())
        abort();
    return 0;
}

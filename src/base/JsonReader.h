#pragma once

#include <nlohmann/json_fwd.hpp>

#include <cstddef>
#include <string>
#include <string_view>

namespace velmora {

// Reads JSON text value by value, in the order in which it stands, for records whose lists are too long to be held as
// a tree. The text is hostile: a syntax error, invalid UTF-8 and nesting deeper than Json::maxDepth throw FormatError.
// Each call consumes the value that comes next, and throws when that is of another kind. `text` outlives the object.
class JsonReader {
public:
    enum class Kind { null, boolean, number, string, array, object };

    explicit JsonReader(std::string_view text);

    Kind kind(); // of the value that comes next; consumes nothing
    bool isNull();
    std::string string();
    nlohmann::json value(); // of any kind. Of a key that stands twice the last one counts
    void skip();
    void end(); // nothing more may come

    // `each` gets every key and consumes its value. The key is good until then.
    template <class F>
    void object(const F& each) {
        open('{');
        for (bool first = true; !closes('}', first); first = false)
            each(key());
        --depth_;
    }
    // `each` is called ahead of every element and consumes it.
    template <class F>
    void array(const F& each) {
        open('[');
        for (bool first = true; !closes(']', first); first = false)
            each();
        --depth_;
    }

private:
    [[noreturn]] void fail(const char* what) const;
    void blanks() noexcept;
    char peek();
    void open(char bracket);
    bool closes(char bracket, bool first);
    std::string_view key();
    void word(std::string_view expected);
    std::string_view text(std::string& unescaped);
    void escape(std::string& out);
    unsigned hex4();
    void sequence();
    nlohmann::json number();

    std::string_view text_;
    std::size_t at_ = 0;
    int depth_ = 0;
    std::string key_; // of one with escapes
};

} // namespace velmora

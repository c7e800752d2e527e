#pragma once

#include <cstdint>
#include <functional>
#include <string>
#include <string_view>
#include <utility>

namespace velmora {

// Whether a text is a 3D table in the .cube form: a line "LUT_3D_SIZE n", and after it n³ lines of three numbers. The
// text is fed piece by piece and never held, so neither a file without an end nor one that promises a huge table costs
// more than reading it: reading ends as soon as the answer is certain.
//
// A table for another input than 0 to 1, or with one-dimensional tables before it, is not valid: ffmpeg reads past
// both, and would show another picture than the table's maker saw.
class CubeCheck {
public:
    enum class Answer { open, valid, invalid };
    using Keep = std::function<void(std::string_view line)>;

    // `keep` gets the lines that make up the table: its size, then the data. ffmpeg refuses some other lines.
    explicit CubeCheck(Keep keep = {}) : keep_(std::move(keep)) {}

    Answer feed(std::string_view piece); // never again once it has answered
    Answer end();                        // no piece is left

    // A renderer takes no other sizes.
    static constexpr std::int64_t minSize = 2, maxSize = 256;

private:
    void line(std::string_view whole);

    Keep keep_;
    Answer answer_ = Answer::open;
    std::string partial_;       // the line that has begun
    std::int64_t missing_ = -1; // data lines; below zero before the size was stated
    std::int64_t otherLines_ = 0;
};

} // namespace velmora

#pragma once

namespace velmora {

// A pipe between two children; both ends are closed here when it goes, and in any child that is not given one.
class Pipe {
public:
    Pipe(); // throws IOError
    ~Pipe();
    Pipe(const Pipe&) = delete;
    Pipe& operator=(const Pipe&) = delete;

    int readEnd() const noexcept { return ends_[0]; }
    int writeEnd() const noexcept { return ends_[1]; }

private:
    int ends_[2] = {-1, -1};
};

} // namespace velmora

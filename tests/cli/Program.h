#pragma once

#include <nlohmann/json.hpp>

namespace velmora::test {

// One run of the real `velmora` as a child process, with its settings in a folder of its own.
class Program {
public:
    struct How {
        int terminalColumns = 0;                   // above 0: standard error is a terminal of that width
        std::vector<std::string> environment = {}; // "NAME=value"
        int out = -1;                              // standard output, instead of a file
        std::vector<int> ignoredSignals = {};      // as nohup and scripts hand them on
        std::vector<int> closed = {};              // descriptors that the program is started without
    };
    explicit Program(const std::vector<std::string>& arguments) : Program(arguments, How()) {}
    Program(const std::vector<std::string>& arguments, const How& how);
    ~Program(); // kills what still runs

    // The words of a copy into folders of one disk.
    static std::vector<std::string> copying(const std::string& source, const std::vector<std::string>& roots,
                                            const std::string& date, const std::vector<std::string>& more);

    void signal(int number) const;
    // The exit status; 128 + N when signal N ended it. Fails the test, and kills, after a minute.
    int wait();
    std::string out() const;
    std::string err() const; // on a terminal: everything that was written to it
    // Standard output as JSON, line by line; a line that is none fails the test. An unfinished last line is left out.
    std::vector<nlohmann::json> events() const;
    // Waits until an event satisfies the condition; none when the program ends first.
    std::optional<nlohmann::json> waitFor(const std::function<bool(const nlohmann::json&)>& condition);

private:
    bool ended();

    TempFolder folder_;
    pid_t pid_ = -1;
    int status_ = -1;
    int terminal_ = -1;
    mutable std::string screen_;
    void drainTerminal() const;
};

} // namespace velmora::test

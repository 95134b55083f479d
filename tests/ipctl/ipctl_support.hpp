// Running ipctl as a process against the simulator of the test's own instance: its
// standard output, standard error and exit status; a process read line by line while it
// runs (monitor, a second simulator); a run whose standard error is a terminal; and a
// checker of the tool's JSON output against the schemas in docs/schema/ipctl/.
#pragma once

#include <sys/types.h>

#include <chrono>
#include <string>
#include <vector>

#include <nlohmann/json.hpp>

namespace ipctl_test {

using Json = nlohmann::json;

struct Result {
    int code = -1;    // exit status (128 + signal when killed, -1 when it did not end)
    std::string out;  // standard output
    std::string err;  // standard error
};

// ipctl with these arguments, within `limit`.
Result ipctl(const std::vector<std::string>& args,
             std::chrono::milliseconds limit = std::chrono::milliseconds(10000));

// The lines of a text, without their line ends.
std::vector<std::string> lines(const std::string& text);

// A process whose standard output and standard error are read line by line as it runs.
class Proc {
public:
    explicit Proc(const std::vector<std::string>& argv);
    ~Proc();
    Proc(const Proc&) = delete;
    Proc& operator=(const Proc&) = delete;
    bool started() const noexcept { return pid_ > 0; }
    // The next line of standard output (or error), false when none came within `limit`.
    bool out_line(std::string* line, std::chrono::milliseconds limit = std::chrono::milliseconds(5000));
    bool err_line(std::string* line, std::chrono::milliseconds limit = std::chrono::milliseconds(5000));
    // Sends a signal to this process.
    void signal(int sig);
    // The exit status once it ended within `limit` (-1 otherwise; the process is then killed).
    int wait(std::chrono::milliseconds limit = std::chrono::milliseconds(5000));
    // Everything left on standard output once the process ended.
    std::string rest_of_out();

private:
    pid_t pid_ = -1;
    int out_ = -1;
    int err_ = -1;
    std::string out_buf_;
    std::string err_buf_;
};

// ipctl with its standard error on a pseudo-terminal: `err` holds what the terminal showed.
Result ipctl_on_terminal(const std::vector<std::string>& args,
                         std::chrono::milliseconds limit = std::chrono::milliseconds(10000));

// The schema docs/schema/ipctl/<name>.json of the source tree.
Json schema(const std::string& name);
// What does not fit the schema, one message per mismatch ("$.a[0].b: ..."); empty when
// the value fits. Understands type (a name or a list of names), properties, required,
// additionalProperties (false), items and enum.
std::vector<std::string> schema_errors(const Json& value, const Json& schema, const std::string& where = "$");

}  // namespace ipctl_test

// SPDX-License-Identifier: MIT
#pragma once
#include "support/test.h"
#include <sys/prctl.h>

/// Command lines as typed in a folder of their own: programs are found by name, files of the folder too.
struct Commands : testing::Test {
    Commands() {
        setenv("PATH", PROGRAMS ":/usr/bin:/bin", 1);
        setenv("TZ", "UTC", 1);
        if (chdir(folder.path.c_str()) != 0) abort();
    }
    const Temporary_folder folder;
};

/// Status, standard error and standard output of a command that is given this input.
inline std::string answer(const std::string& command, const std::string& input = "") {
    write_file("input", input);
    const Child_result r = run_shell(command + " <input");
    return r.end() + r.out;
}

/// Commands whose only answer is a status and a line behind the program's name.
struct Complaint {
    std::string command, answer, input = "";
};
inline void expect_complaints(const std::vector<Complaint>& complaints) {
    for (Complaint c : complaints) {
        c.answer.insert(2, c.command.substr(0, c.command.find(' ')) + ": ");
        EXPECT_EQ(answer(c.command, c.input), c.answer + "\n") << c.command;
    }
}

/// Of an input that is cut anywhere a command tells in one line, with status 1.
inline void expect_cuts_told(const std::string& command, const std::string& whole, size_t step) {
    for (size_t n = 1; n < whole.size(); n += step) {
        write_file("input", whole.substr(0, n));
        const Child_result r = run_shell(command + " <input");
        EXPECT_VALUES("1 1", r.status, std::count(r.err.begin(), r.err.end(), '\n')) << n << r.err;
    }
}

/// That these texts stand in it, save those that begin with an exclamation mark.
inline void expect_in(const std::string& all, const std::vector<std::string>& parts) {
    for (const std::string& part : parts) {
        const bool wanted = part[0] != '!';
        EXPECT_EQ(all.find(part.substr(!wanted)) != std::string::npos, wanted) << part << "\n" << all;
    }
}

/// How a command ends, as in_child() tells it, that runs beside `meanwhile` and then gets a signal.
inline int run_beside(const std::string& command, int signal, const std::function<void()>& meanwhile) {
    const auto become = [&] { return execl("/bin/sh", "sh", "-c", ("exec " + command).c_str(), nullptr); };
    return in_child([&] { return prctl(PR_SET_PDEATHSIG, SIGKILL), std::signal(SIGHUP, SIG_DFL), become(); },
                    [&](pid_t pid) { meanwhile(), kill(pid, signal); });
}

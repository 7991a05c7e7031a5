// Runs a program as a process of its own, as a user would, and tells how it ended.
//
//   const Outcome outcome = runProgram({.program = path, .arguments = {"tables", "a.qvd"}});
//   EXPECT_EQ(outcome.status, 0);
//   EXPECT_EQ(outcome.out, "...");
#pragma once

#include <sys/types.h>

#include <filesystem>
#include <functional>
#include <set>
#include <string>
#include <vector>

namespace qvdbase::test {

// Which of its standard streams are a terminal; the others are pipes.
enum class Terminal { none, output, error };

struct ProgramCall {
  std::filesystem::path program;
  std::vector<std::string> arguments;
  std::string input;             // what it reads from standard input
  std::filesystem::path folder;  // where it runs; empty: here
  Terminal terminal = Terminal::none;
  unsigned short terminalColumns = 0;  // its width; 0: it tells none
  bool closesOutput = false;           // no process reads its standard output
  std::set<int> closedStreams;         // standard streams, 0 to 2, that it is started without
  std::string inputFile;               // standard input is this file instead
  std::string outputFile;              // standard output goes to this file instead
  // Called once the program runs, with its process identifier; for sending signals.
  std::function<void(pid_t)> meanwhile;
};

struct Outcome {
  int status = -1;  // exit status; -1 when a signal ended it
  int signal = 0;   // that signal
  std::string out;
  std::string err;
};

// Throws std::runtime_error when the program cannot be started.
Outcome runProgram(const ProgramCall& call);

// How EXPECT_EQ and << show it.
std::ostream& operator<<(std::ostream& out, const Outcome& outcome);

}  // namespace qvdbase::test

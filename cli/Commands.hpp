#pragma once
// The subcommands of the wireloom command. Each takes the arguments after
// its name and returns the process's exit status: 0 success, 1 a failure
// while working (unreadable or damaged file), 2 wrong usage.

#include <cstdio>
#include <string>
#include <vector>

namespace wireloom::cli {

inline constexpr int kExitFailure = 1;
inline constexpr int kExitUsage = 2;

int readCommand(const std::vector<std::string>& args, std::FILE* out, std::FILE* err);
int captureCommand(const std::vector<std::string>& args, std::FILE* out, std::FILE* err);
int searchCommand(const std::vector<std::string>& args, std::FILE* out, std::FILE* err);
int followCommand(const std::vector<std::string>& args, std::FILE* out, std::FILE* err);
int devicesCommand(const std::vector<std::string>& args, std::FILE* out, std::FILE* err);

void printUsage(std::FILE* to);

}  // namespace wireloom::cli

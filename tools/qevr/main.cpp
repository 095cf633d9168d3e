// qevr: the command-line tool of the QEVR library.
#include <QEVR/QEVR.h>

#include <iostream>
#include <string>
#include <vector>

#include "AnalyzeCommand.h"
#include "DemoCommand.h"
#include "DoctorCommand.h"
#include "LzfseCommand.h"
#include "RecommendCommand.h"
#include "ReportCommand.h"
#include "SimulateCommand.h"
#include "SnapshotCommand.h"

namespace {

void printUsage(std::ostream& out) {
  out << "usage: qevr <command> [arguments]\n"
         "  version                         print the library version\n"
         "  demo [--data-dir DIR] [--log-level LEVEL]\n"
         "                                  run the system through several app launches\n"
         "  simulate --data-dir DIR --events N [--seed S] [--continuity]\n"
         "                                  drive a simulated user as fast as possible\n"
         "  simulate --data-dir DIR --personas USERS [--seed S]\n"
         "                                  play users who apply or dismiss advice, and\n"
         "                                  check the measured effects against the truth\n"
         "  snapshot [--data-dir DIR] [--json]\n"
         "                                  the intelligence snapshot of a store (read-only)\n"
         "  analyze [--domain D] [--data-dir DIR | --snapshot FILE] [--json]\n"
         "                                  the four analyses of a store or a snapshot "
         "(read-only)\n"
         "  recommend [--domain D] [--policy FILE] [--data-dir DIR | --inputs FILE] [--json]\n"
         "                                  one generation over a store or exported data\n"
         "  doctor [--data-dir DIR] [--fix]\n"
         "                                  check every file of a store; --fix moves damaged\n"
         "                                  ones to QEVR/Memory-quarantine (exit 0 healthy,\n"
         "                                  1 damaged or damaged and fixed, 3 not all fixed)\n"
         "  report [--data-dir DIR] -o FILE [--domain D] [--layout dot|builtin]\n"
         "                                  a self-contained HTML page of a store (read-only)\n"
         "  lzfse compress|decompress [--block] IN OUT\n"
         "                                  convert a file to or from the compressed format\n";
}

}  // namespace

int main(int argc, char** argv) {
  std::vector<std::string> args(argv + 1, argv + argc);
  if (args.empty() || args[0] == "help" || args[0] == "--help" || args[0] == "-h") {
    printUsage(args.empty() ? std::cerr : std::cout);
    return args.empty() ? 2 : 0;
  }
  const std::string command = args[0];
  const std::vector<std::string> rest(args.begin() + 1, args.end());
  if (command == "version") {
    std::cout << QEVR::version << "\n";
    return 0;
  }
  if (command == "demo") return runDemoCommand(rest, std::cout, std::cerr);
  if (command == "simulate") return runSimulateCommand(rest, std::cout, std::cerr);
  if (command == "recommend") return runRecommendCommand(rest, std::cout, std::cerr);
  if (command == "analyze") return runAnalyzeCommand(rest, std::cout, std::cerr);
  if (command == "doctor") return runDoctorCommand(rest, std::cout, std::cerr);
  if (command == "snapshot") return runSnapshotCommand(rest, std::cout, std::cerr);
  if (command == "report") return runReportCommand(rest, std::cout, std::cerr);
  if (command == "lzfse") return runLzfseCommand(rest, std::cout, std::cerr);
  std::cerr << "qevr: unknown command '" << command << "'\n";
  printUsage(std::cerr);
  return 2;
}

#include "LzfseCommand.h"

#include <QEVMemory/QEVLZFSECompressionEngine.h>
#include <QEVRLZFSE/Lzfse.h>
#include <QEVRPlatform/FileSystem.h>

#include <cstdint>
#include <filesystem>
#include <system_error>

namespace {

constexpr const char* kUsage = "usage: qevr lzfse compress|decompress [--block] IN OUT";

// Inputs are read whole; a bare stream is decoded whole. Both are bounded
// so that a hostile file cannot make the tool reserve more than this.
constexpr std::uint64_t kMaxInputBytes = std::uint64_t{1} << 30;
constexpr std::size_t kMaxStreamOutputBytes = std::size_t{1} << 30;

int usageError(std::ostream& err, const std::string& problem) {
  err << "qevr lzfse: " << problem << " (" << kUsage << ")\n";
  return 2;
}

}  // namespace

int runLzfseCommand(const std::vector<std::string>& args, std::ostream& out, std::ostream& err) {
  if (args.empty()) return usageError(err, "missing mode");
  const std::string& mode = args[0];
  if (mode != "compress" && mode != "decompress") {
    return usageError(err, "unknown mode '" + mode + "'");
  }
  bool block = false;
  std::vector<std::string> paths;
  for (std::size_t i = 1; i < args.size(); ++i) {
    if (args[i] == "--block") {
      block = true;
    } else if (args[i].size() > 1 && args[i][0] == '-') {
      return usageError(err, "unknown option '" + args[i] + "'");
    } else {
      paths.push_back(args[i]);
    }
  }
  if (paths.size() != 2) return usageError(err, "expected IN and OUT");
  const std::filesystem::path inPath = paths[0];
  const std::filesystem::path outPath = paths[1];

  qevr::FileSystem& files = qevr::FileSystem::defaultFileSystem();
  std::vector<std::uint8_t> input;
  try {
    input = files.readFile(inPath, kMaxInputBytes);
  } catch (const std::system_error& e) {
    err << "qevr lzfse: cannot read " << inPath.string() << ": " << e.code().message() << "\n";
    return 1;
  }

  std::vector<std::uint8_t> output;
  const QEVLZFSECompressionEngine engine;
  if (mode == "compress") {
    try {
      output = block ? engine.compress(input) : qevr::lzfse::encode(input);
    } catch (const QEVCompressionError&) {
      err << "qevr lzfse: cannot compress " << inPath.string() << "\n";
      return 1;
    }
  } else if (block) {
    try {
      output = engine.decompress(input);
    } catch (const QEVCompressionError&) {
      err << "qevr lzfse: " << inPath.string() << " is not a valid compressed block\n";
      return 1;
    }
  } else {
    const qevr::lzfse::DecodeStatus status =
        qevr::lzfse::decode(input, kMaxStreamOutputBytes, output);
    if (status != qevr::lzfse::DecodeStatus::ok) {
      err << "qevr lzfse: " << inPath.string() << " is not a valid LZFSE stream ("
          << qevr::lzfse::toString(status) << ")\n";
      return 1;
    }
  }

  try {
    files.writeFileAtomically(outPath, output);
  } catch (const std::system_error& e) {
    err << "qevr lzfse: cannot write " << outPath.string() << ": " << e.code().message() << "\n";
    return 1;
  }
  out << mode << (block ? " --block " : " ") << inPath.string() << ": " << input.size() << " -> "
      << output.size() << " bytes\n";
  return 0;
}

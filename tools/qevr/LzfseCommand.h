// `qevr lzfse`: compress or decompress a file with the LZFSE codec.
#pragma once

#include <ostream>
#include <string>
#include <vector>

// Runs `qevr lzfse compress|decompress [--block] IN OUT`; `args` are the
// words after "lzfse". Without --block, OUT (compress) or IN (decompress) is
// a bare LZFSE stream; with it, a compressed chunk block as the memory
// subsystem stores it (8-byte big-endian length, then the stream).
//
// Writes OUT atomically and a one-line summary to `out`. Returns 0 on
// success, 1 when a file cannot be read or written or the input is not a
// valid stream or block, 2 on bad usage; each failure prints one line to
// `err`.
int runLzfseCommand(const std::vector<std::string>& args, std::ostream& out, std::ostream& err);

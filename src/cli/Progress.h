#pragma once
// The progress channel: JSON Lines on standard error for front ends, rewritten percent lines on standard output for
// people. The tile loop decides when a line is due; this file owns what the line says.

#include <ostream>
#include <string>

namespace ulmora::cli {

/// The schema identifier of a progress line.
const char* ProgressSchema();

/// The share of tiles begun, in percent, computed in single precision. `total` is positive.
float ProgressPercent(int current, int total);

/// The JSON line before the first tile, flushed.
void WriteProgressStart(std::ostream& stream, int total);

/// The JSON line of a tile that begins, flushed. `current` counts tiles begun, from 1.
void WriteProgress(std::ostream& stream, int current, int total);

/// The JSON line after the last tile, flushed.
void WriteProgressFinish(std::ostream& stream, int total);

/// The JSON line of a failed run, flushed. Only the driver writes it.
void WriteProgressError(std::ostream& stream, const std::string& message);

/// The percent text for people, ended by a carriage return and flushed, so that the next one overwrites it. Leaves the
/// stream in fixed notation with one decimal.
void WriteWorking(std::ostream& stream, int current, int total);

/// The last line for people, which overwrites the percent text to its last character, and an empty line. Both flushed.
void WriteWorkingDone(std::ostream& stream);

}  // namespace ulmora::cli

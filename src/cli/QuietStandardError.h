#pragma once
// Keeps lines that are not ours off standard output and standard error. The image library and the codecs below it
// print their own complaints, some through C++ streams and some through C's; a front end must read none of them, and
// what they have to say we say ourselves.

namespace ulmora::cli {

/// Makes sure that descriptors 0 to 2 are open, on the null device where the parent closed them. Otherwise an image
/// file could be opened under one of these numbers and our own lines would go into it. Called once, first thing.
void OccupyStandardDescriptors();

/// While it lives, whatever goes to descriptors 1 and 2 is dropped. What was written before is flushed first and what
/// was written meanwhile is flushed away, so that nothing of it comes out late. Without a null device it does nothing.
class QuietStandardError {
 public:
  QuietStandardError();
  ~QuietStandardError();
  /// The descriptors can be put back only once.
  QuietStandardError(const QuietStandardError&) = delete;
  QuietStandardError& operator=(const QuietStandardError&) = delete;

 private:
  int savedOutput_ = -1;
  int savedError_ = -1;
};

}  // namespace ulmora::cli

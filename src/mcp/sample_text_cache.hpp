#pragma once
// The written samples of the last power-history answer, kept so that the next answer over an
// overlapping window (an assistant asking for the last hour every minute or so) copies the text
// of the samples the two share instead of writing every number of them again.
//
// A sample's text is reused only for a sample equal to it field for field, written in the same
// form; a sample whose stored values changed since is written afresh. It holds one answer's
// samples: those of the last call.
//
// Threading: none of its own; the snapshot provider uses it on the store's queue only.

#include <cstddef>
#include <string>
#include <vector>

#include "core/json_text_writer.hpp"
#include "store/history_records.hpp"

namespace quorel::history_text {

class SampleTextCache {
 public:
  // Writes `samples`, in the order given (the store's, by ascending time), as the next values
  // of `w`, and keeps them and what it wrote for the next call.
  void write(JSONTextWriter& w, std::vector<PowerSample> samples);
  // How many samples the last call copied rather than wrote.
  std::size_t lastReused() const noexcept { return lastReused_; }

 private:
  // Where a sample's text lies in `text_`.
  struct Span {
    std::size_t offset = 0;
    std::size_t length = 0;
  };

  JSONTextWriter::Form form_ = JSONTextWriter::Form::json;
  std::vector<PowerSample> samples_;
  std::vector<Span> spans_;
  // The samples as the last answer has them, with the separators between them.
  std::string text_;
  std::size_t lastReused_ = 0;
};

}  // namespace quorel::history_text

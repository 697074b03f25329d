#include "mcp/sample_text_cache.hpp"

#include <string_view>
#include <utility>

#include "mcp/history_text.hpp"

namespace quorel::history_text {

void SampleTextCache::write(JSONTextWriter& w, std::vector<PowerSample> samples) {
  const bool sameForm = w.form() == form_;
  std::vector<Span> spans;
  spans.reserve(samples.size());
  std::size_t reused = 0;
  const std::size_t start = w.size();
  // Both lists run by ascending time, so one pass over the old one finds every candidate.
  std::size_t old = 0;
  for (const PowerSample& s : samples) {
    while (old < samples_.size() && samples_[old].timestamp < s.timestamp) ++old;
    std::size_t mark = w.size();
    if (sameForm && old < samples_.size() && samples_[old] == s) {
      w.raw(std::string_view(text_).substr(spans_[old].offset, spans_[old].length));
      ++reused;
    } else {
      sample(w, s);
    }
    // The separator before a sample belongs to where it stands, not to the sample.
    if (w.writtenSince(mark).front() == ',') ++mark;
    spans.push_back({mark - start, w.size() - mark});
  }
  // One copy of the whole run, kept until the next call.
  text_.assign(w.writtenSince(start));
  samples_ = std::move(samples);
  spans_ = std::move(spans);
  form_ = w.form();
  lastReused_ = reused;
}

}  // namespace quorel::history_text

#include "mcp/sample_text_cache.hpp"

#include <string_view>
#include <utility>

#include "mcp/history_text.hpp"

namespace quorel::history_text {

void SampleTextCache::write(JSONTextWriter& w, std::vector<PowerSample> samples) {
  const bool sameForm = w.form() == form_;
  std::vector<Entry> entries;
  entries.reserve(samples.size());
  std::string text;
  text.reserve(text_.size());
  std::size_t reused = 0;
  // Both lists run by ascending time, so one pass over the old one finds every candidate.
  std::size_t old = 0;
  for (PowerSample& s : samples) {
    while (old < entries_.size() && entries_[old].sample.timestamp < s.timestamp) ++old;
    std::string_view written;
    if (sameForm && old < entries_.size() && entries_[old].sample == s) {
      written = std::string_view(text_).substr(entries_[old].offset, entries_[old].length);
      w.raw(written);
      ++reused;
    } else {
      const std::size_t mark = w.size();
      sample(w, s);
      written = w.writtenSince(mark);
      // The separator before it belongs to where it stands, not to the sample.
      if (written.front() == ',') written.remove_prefix(1);
    }
    entries.push_back({std::move(s), text.size(), written.size()});
    text.append(written);
  }
  entries_ = std::move(entries);
  text_ = std::move(text);
  form_ = w.form();
  lastReused_ = reused;
}

}  // namespace quorel::history_text

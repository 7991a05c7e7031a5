// A file with patches laid over it, as far as chains of records are concerned: what is judged
// before anything is written, and what a commit looks at.
#pragma once

#include <cstdint>
#include <optional>

#include "format/layout.h"
#include "intents/held_patches.h"
#include "intents/run.h"

namespace qvdbase::intents {

class ChainView {
 public:
  // Both must outlive the object.
  ChainView(const FileBytes& file, const HeldPatches& patches) : file_(file), patches_(patches) {}

  bool read(int64_t position, void* buffer, size_t count) const;

  std::optional<tablePart1> slot(int index) const;
  // The links of a record of that table, or nothing.
  struct Links {
    int64_t previous;
    int64_t next;
  };
  std::optional<Links> links(int64_t position, const tablePart1& table) const;
  // Its whole header, likewise.
  std::optional<recordPart1> record(int64_t position, const tablePart1& table) const;

  // Whether the neighbours of a record, or the ends of the chain in the slot, lead to it, each as
  // it says itself.
  bool hangsTogether(const tablePart1& table, int64_t block) const;
  // Whether the first record has none before it, and the last none after it.
  bool hasSoundEnds(const tablePart1& table) const;

 private:
  const FileBytes& file_;
  const HeldPatches& patches_;
};

}  // namespace qvdbase::intents

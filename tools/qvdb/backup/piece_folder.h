// A folder with backups in pieces: the pieces, each under its hash, in the folder "pieces", and a
// manifest for each backup. What is there is never written again, so that any program that copies
// folders keeps a copy of it up to date by new files alone.
#pragma once

#include <cstddef>
#include <functional>
#include <set>
#include <span>
#include <string>
#include <vector>

#include "backup/manifest.h"
#include "streams/input.h"

namespace qvdb::tool {

class PieceFolder {
 public:
  enum class Use { reading, writing };

  // Opens the folder, and for writing creates it where it is missing, and removes temporary files.
  // One process at a time writes, and none reads meanwhile. Throws Failure, and Error with in_use
  // when it would have to wait.
  PieceFolder(const std::string& path, Use use);

  const std::string& path() const { return path_; }

  // Where the copy of the database is while it is cut into pieces. Throws Failure where that path
  // leads to another folder now.
  std::string copyPath() const;

  // Opens the copy for reading, and removes its name. Throws Failure, also where something else
  // has its name, or it has another length.
  Descriptor takeCopy(uint64_t length) const;

  // Replaces the buffer by the next `size` bytes of it. Throws Failure where it has fewer.
  void readCopy(const Descriptor& copy, uint64_t size, std::vector<std::byte>* bytes) const;

  // The names of the manifests, the oldest first.
  std::vector<std::string> manifests() const;

  // Throws Failure for one that is damaged.
  Manifest read(const std::string& name) const;

  // Puts the piece there, unless it is there already; in that case it is read and compared, where
  // `isKnown` does not say that it is part of a backup. Returns whether it was written.
  bool add(const std::string& hash, std::span<const std::byte> bytes, bool isKnown,
           uint32_t mode) const;

  // Replaces the buffer by the bytes of a piece. Throws Failure unless they are those that the hash
  // was made of.
  void readPiece(const std::string& hash, uint64_t size, std::vector<std::byte>* bytes) const;

  // Waits until the device has the pieces.
  void sync() const;

  // Adds a manifest, and waits for it, if asked to. Returns its name. Where there is one of the
  // same time already, its name says that it is later.
  std::string add(Manifest manifest, bool sync) const;

  // Removes all but the newest manifests, then the pieces that are in none of these. Returns how
  // many pieces went.
  size_t prune(size_t kept) const;

 private:
  using Names = std::set<std::string, std::less<>>;

  void lock(Use use) const;
  void removeTemporaryFiles() const;
  std::string pathOf(const std::string& hash) const { return path_ + "/pieces/" + hash; }
  void write(const std::string& hash, std::span<const std::byte> bytes, bool replaces,
             uint32_t mode) const;
  void syncEach() const;
  std::string freeName(Manifest* manifest) const;
  Names pieces() const;

  std::string path_;
  Descriptor folder_;
  Descriptor pieces_;
};

}  // namespace qvdb::tool

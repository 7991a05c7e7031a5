// qvdb::OutputFile.
#include <qvdbase/qvdb/error.hpp>
#include <qvdbase/qvdb/output_file.hpp>

#include "failure/failure.h"
#include "products/target_file.h"

using namespace qvdbase;

namespace qvdb {

namespace {

constexpr const char* kOperation = "write the file";

products::TargetRules rulesOf(const OutputOptions& options, platform::Waits waits) {
  return {
      .existing = options.overwrite ? products::Existing::isReplaced : products::Existing::isKept,
      .createFolders = options.create_folders,
      .mayBeReadOnly = true,
      .waits = options.sync ? waits : platform::Waits::no};
}

}  // namespace

class OutputFile::State {
 public:
  State(const std::filesystem::path& path, const OutputOptions& options)
      : target_(path, kOperation, rulesOf(options, platform::Waits::forName)) {}
  // Names are the folder's, for which its opener waits once.
  State(int folder, const std::string& name, const std::filesystem::path& path,
        const OutputOptions& options)
      : target_(folder, name, path, kOperation, rulesOf(options, platform::Waits::forContents)) {}

  products::TargetFile& target() { return target_; }

  void write(std::span<const std::byte> bytes) {
    if (!target_.file().writeAt(size_, bytes.data(), bytes.size())) {
      target_.failWriting();
    }
    size_ += static_cast<int64_t>(bytes.size());
  }

 private:
  products::TargetFile target_;
  int64_t size_ = 0;
};

OutputFile::OutputFile(const std::filesystem::path& target, const std::filesystem::path& source,
                       const OutputOptions& options)
    : state_(std::make_unique<State>(target, options)) {
  std::error_code error;
  if (std::filesystem::equivalent(target, source, error)) {
    failure::throwError(target, kOperation, Reason::bad_argument,
                        "it is the database itself; choose another name");
  }
  platform::FileAccess access = products::accessOf(source, kOperation);
  access.attributes.clear();  // what users attached is about the database
  state_->target().create(&access);
}

OutputFile::OutputFile(int folder, const std::string& name, const std::filesystem::path& path,
                       const OutputOptions& options)
    : state_(std::make_unique<State>(folder, name, path, options)) {}

OutputFile::~OutputFile() = default;
OutputFile::OutputFile(OutputFile&& other) noexcept = default;
OutputFile& OutputFile::operator=(OutputFile&& other) noexcept = default;

void OutputFile::write(std::span<const std::byte> bytes) {
  state_->write(bytes);
}

int OutputFile::descriptor() const noexcept {
  return state_->target().file().descriptor();
}

void OutputFile::place() {
  state_->target().place();
}

}  // namespace qvdb

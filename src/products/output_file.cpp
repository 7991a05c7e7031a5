// qvdb::OutputFile.
#include <qvdbase/qvdb/error.hpp>
#include <qvdbase/qvdb/output_file.hpp>

#include "products/target_file.h"

namespace qvdb {

namespace platform = qvdbase::platform;

namespace {

constexpr const char* kOperation = "write the file";

detail::TargetRules rulesOf(const OutputOptions& options) {
  return {.existing = options.overwrite ? detail::Existing::isReplaced : detail::Existing::isKept,
          .createFolders = options.create_folders,
          .mayBeReadOnly = true,
          .waits = options.sync ? platform::Waits::forName : platform::Waits::no};
}

// Names are the folder's, for which its opener waits once.
detail::TargetRules entryRulesOf(const OutputOptions& options) {
  detail::TargetRules rules = rulesOf(options);
  if (options.sync) rules.waits = platform::Waits::forContents;
  return rules;
}

}  // namespace

class OutputFile::State {
 public:
  State(const std::filesystem::path& path, const OutputOptions& options)
      : target_(path, kOperation, rulesOf(options)) {}
  State(int folder, const std::string& name, const std::filesystem::path& path,
        const OutputOptions& options)
      : target_(folder, name, path, kOperation, entryRulesOf(options)) {}

  detail::TargetFile& target() { return target_; }

  void write(std::span<const std::byte> bytes) {
    if (!target_.file().writeAt(size_, bytes.data(), bytes.size())) {
      target_.failWriting();
    }
    size_ += static_cast<int64_t>(bytes.size());
  }

 private:
  detail::TargetFile target_;
  int64_t size_ = 0;
};

OutputFile::OutputFile(const std::filesystem::path& target, const std::filesystem::path& source,
                       const OutputOptions& options)
    : state_(std::make_unique<State>(target, options)) {
  std::error_code error;
  if (std::filesystem::equivalent(target, source, error)) {
    detail::failOn(target, kOperation, Reason::bad_argument,
                   "it is the database itself; choose another name");
  }
  platform::FileAccess access = detail::accessOf(source, kOperation);
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

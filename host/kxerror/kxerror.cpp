#include <kxerror/kxerror.hpp>

#include <utility>

namespace KX {

KXError::KXError(std::string module, std::string method, std::string description, std::string file,
                 int line, Kind kind)
    : mModule(std::move(module)),
      mMethod(std::move(method)),
      mDescription(std::move(description)),
      mFile(std::move(file)),
      mLine(line),
      mKind(kind) {}

KXError::~KXError() = default;

char const* KXError::what() const noexcept {
  return mDescription.c_str();
}

std::string describeCurrentException() {
  try {
    throw;
  } catch (std::exception const& error) {
    return messageOf(error);
  } catch (...) {
    return "an exception of unknown type";
  }
}

}  // namespace KX

// Layout of the generated asset source (tools/embed_assets.cmake).
#pragma once
#include <cstddef>

namespace cvn::detail {

struct EmbeddedFile {
  const char* name;
  const unsigned char* data;
  std::size_t size;
};

extern const EmbeddedFile kEmbeddedFiles[];
extern const int kEmbeddedFileCount;

}  // namespace cvn::detail

// The store data a bundle keeps beside it, in the order every capture takes it: one list, so
// that the path-based capture and the one beneath a verified directory can never disagree.
#pragma once

namespace vx {

struct StoreDataItem {
  const char* name;
  // Tells older clients which item failed, without parsing the message.
  const char* failureWord;
};

inline constexpr StoreDataItem kStoreDataItems[] = {
    {"Manifest.plist", "ManifestCaptureFailed"},
    {"LyrandArtwork", "LyrandArtworkCaptureFailed"},
    {"LyrandMetadata.plist", "LyrandMetadataCaptureFailed"},
    {"GeoJSON", "GeoJSONCaptureFailed"},
};

}  // namespace vx

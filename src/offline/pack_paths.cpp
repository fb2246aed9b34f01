#include "offline/pack_paths.hpp"

#include <string>

#include "offline/offline_storage.hpp"

namespace terrane::common {

PackPaths packPaths(const std::filesystem::path& root, const Context& context) {
    PackPaths paths;
    paths.revisionDirectory =
        revisionDirectoryPath(root, context.region.metadata.id, context.region.metadata.revision);
    paths.metadataFile = metadataFilePath(paths.revisionDirectory);
    paths.packFile = packFilePath(paths.revisionDirectory, context.domain, context.pack.format);
    paths.downloadFile = downloadFilePath(paths.packFile);
    paths.headerFile = headerFilePath(paths.packFile);
    paths.partialFile = paths.downloadFile.string() + std::string(partialDownloadSuffix);
    paths.resumeDataFile = paths.downloadFile.string() + std::string(resumeDataSuffix);
    return paths;
}

}  // namespace terrane::common

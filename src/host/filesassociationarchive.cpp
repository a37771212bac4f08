#include "filesassociationarchive.h"

#include <stdexcept>

namespace {

constexpr int kBuckets = 11;

// The directory setters take a text; null is refused with a clear error.
char const* checkedDirectory(char const* directory) {
    if (directory == nullptr) throw std::invalid_argument("FilesAssociationArchive: null directory");
    return directory;
}

}  // namespace

// Constructed among the library's static initialisers, so it exists (empty) from load on.
std::string FilesAssociationArchive::mGlobalDefualtDestinationDirectory;

FilesAssociationArchive::FilesAssociationArchive() : CAssociativeArray(kBuckets) {}

FilesAssociationArchive::~FilesAssociationArchive() = default;

void FilesAssociationArchive::AddFileAssociation(char const* file, char const* destination) {
    bool const hasDestination = destination != nullptr && destination[0] != '\0';
    std::string const text = hasDestination ? BuildDefDestPath(destination, true) : BuildDefDestPath(file, false);
    AddCouple(file, text.data(), static_cast<int>(text.size()));
}

char const* FilesAssociationArchive::GetFileAssociate(char const* file) { return GetValueOfParameter(file); }

void FilesAssociationArchive::SetDefualtDestinationDirectory(char const* directory) {
    mDefualtDestinationDirectory = checkedDirectory(directory);
}

char const* FilesAssociationArchive::GetDefualtDestinationDirectory() { return mDefualtDestinationDirectory.c_str(); }

void FilesAssociationArchive::SetDefualtGlobalDestinationDirectory(char const* directory) {
    mGlobalDefualtDestinationDirectory = checkedDirectory(directory);
}

std::string FilesAssociationArchive::BuildDefDestPath(char const*, bool) { return std::string(); }

RWHashDictionaryIterator* FilesAssociationArchive::GetIterator() {
    if (mIterator)
        mIterator->reset();
    else
        mIterator = std::make_unique<RWHashDictionaryIterator>(*this);
    return mIterator.get();
}

// A table of file names and the destination where each file is to go, with a per-table
// default destination directory and one process-wide default destination directory.
//
// It is an associative array: the file name is the key, the destination text the value.
// Destinations are composed by BuildDefDestPath, which gives the empty text in this library,
// so every file is stored with an empty destination. The letters "Defualt" in the names are
// the interface's own spelling. One thread at a time uses a table and the global directory.
#ifndef COLLOQUY_FILESASSOCIATIONARCHIVE_H
#define COLLOQUY_FILESASSOCIATIONARCHIVE_H

#include "associativearray.h"
#include "cplatformdefs.h"
#include "rwhashdict.h"

#include <memory>
#include <string>

class COLLOQUY_EXPORT FilesAssociationArchive : public CAssociativeArray {
  public:
    FilesAssociationArchive();
    ~FilesAssociationArchive() override;
    FilesAssociationArchive(FilesAssociationArchive const&) = delete;
    FilesAssociationArchive& operator=(FilesAssociationArchive const&) = delete;

    // Stores (or replaces) the destination of `file`, as composed by BuildDefDestPath from
    // `destination` when that is given and not empty, from `file` otherwise.
    void AddFileAssociation(char const* file, char const* destination);
    // The stored destination of `file`; CAssoKeyDoesNotExistException for an unknown file.
    char const* GetFileAssociate(char const* file);
    // The directory setters copy the text; null throws std::invalid_argument.
    void SetDefualtDestinationDirectory(char const* directory);
    // Valid until the directory is next set or the table is destroyed.
    char const* GetDefualtDestinationDirectory();
    static void SetDefualtGlobalDestinationDirectory(char const* directory);
    // The single point where a destination text is composed: the empty text here, whatever
    // the arguments; neither default directory is consulted.
    std::string BuildDefDestPath(char const* name, bool isDestination);
    // The table's one iterator, positioned before the first pair. Every call returns the same
    // object and restarts it, for every holder. Adding pairs while iterating is not supported.
    RWHashDictionaryIterator* GetIterator();

  protected:
    std::string mDefualtDestinationDirectory;
    std::unique_ptr<RWHashDictionaryIterator> mIterator;    // made by the first GetIterator
    static std::string mGlobalDefualtDestinationDirectory;  // empty from load on
};

#endif

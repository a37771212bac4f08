// The file association archive: every file stored with the empty destination, replacement,
// the default directories, and the one shared iterator that every call restarts.
#include "filesassociationarchive.h"
#include "testing.h"

namespace {

// Reads the process-wide default directory, which the archive offers no getter for.
struct ArchiveProbe : FilesAssociationArchive {
    static std::string const& globalDirectory() { return mGlobalDefualtDestinationDirectory; }
};

TEST(FileAssociations, EveryFileIsStoredWithTheEmptyDestination) {
    EXPECT_EQ(ArchiveProbe::globalDirectory(), "");  // constructed empty at load
    FilesAssociationArchive archive;
    archive.SetDefualtDestinationDirectory("/dest");
    FilesAssociationArchive::SetDefualtGlobalDestinationDirectory("/global");
    EXPECT_EQ(ArchiveProbe::globalDirectory(), "/global");
    for (char const* destination : {"/tmp/out", "", static_cast<char const*>(nullptr)}) {
        archive.AddFileAssociation("a.txt", destination);
        EXPECT_STREQ(archive.GetFileAssociate("a.txt"), "");  // neither default is consulted either
    }
    archive.AddFileAssociation("b.txt", "/elsewhere");  // a.txt was replaced, not added
    EXPECT_EQ(std::pair(archive.entries(), archive.BuildDefDestPath("a.txt", true)), std::pair(size_t(2), ""s));
    EXPECT_THROW(archive.GetFileAssociate("unknown"), CAssoKeyDoesNotExistException);
    FilesAssociationArchive::SetDefualtGlobalDestinationDirectory("");
    // The default directory belongs to each archive; null directories are refused.
    EXPECT_STREQ(FilesAssociationArchive().GetDefualtDestinationDirectory(), "");
    EXPECT_THROW(archive.SetDefualtDestinationDirectory(nullptr), std::invalid_argument);
    EXPECT_THROW(FilesAssociationArchive::SetDefualtGlobalDestinationDirectory(nullptr), std::invalid_argument);
    EXPECT_STREQ(archive.GetDefualtDestinationDirectory(), "/dest");

    // One iterator, restarted by every call, also in the middle of a walk.
    RWHashDictionaryIterator* const first = archive.GetIterator();
    ASSERT_TRUE(first && (*first)());
    EXPECT_EQ(archive.GetIterator(), first);
    int walked = 0;
    while (RWCollectable* key = (*first)()) walked += static_cast<RWCollectableString*>(key)->view().back() == 't';
    EXPECT_EQ(std::tuple(walked, (*first)()), std::tuple(2, nullptr));  // and stays exhausted
    EXPECT_EQ((*FilesAssociationArchive().GetIterator())(), nullptr);
}

}  // namespace

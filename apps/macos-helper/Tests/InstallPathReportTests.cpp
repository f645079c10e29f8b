#include <gtest/gtest.h>

#include <sys/stat.h>
#include <unistd.h>

#include <filesystem>
#include <functional>

#include "HelperService.h"
#include "Support/SimulatedMac.h"

namespace orven {
namespace {

using testing::TemporaryFolder;

constexpr const char* kLibrary = "/Library";
constexpr const char* kTools = "/Library/PrivilegedHelperTools";
constexpr const char* kInstall = "/Library/PrivilegedHelperTools/test.orven.app";
constexpr const char* kBundle = "/Library/PrivilegedHelperTools/test.orven.app/ORVEN Helper.app";

struct InstallTree {
    TemporaryFolder folder;
    RecordingLogSink log;
    SimulatedMacHost host{folder.path(), log};
    DaemonContext context{host};

    std::string local(std::string_view macPath) const { return folder.path() + std::string(macPath); }

    // Every component a root-owned 0755 directory, up to and including `last`.
    void build(std::string_view last = kBundle)
    {
        for (const char* component : {kLibrary, kTools, kInstall, kBundle}) {
            std::filesystem::create_directory(local(component));
            ::chmod(local(component).c_str(), 0755);
            if (component == last) break;
        }
    }
};

struct ReportCase {
    const char* name;
    bool needsRoot;
    std::function<void(InstallTree&)> arrange;
    std::string expected;
};

class InstallPathReport : public ::testing::TestWithParam<ReportCase> {};

TEST_P(InstallPathReport, LogsOneLineForTheFirstFinding)
{
    if (GetParam().needsRoot && ::geteuid() != 0) GTEST_SKIP() << "changing an owner needs root";
    InstallTree tree;
    GetParam().arrange(tree);
    HelperService::reportInstallPathIntegrity(tree.context);
    const auto records = tree.log.records();
    ASSERT_EQ(records.size(), 1u);
    EXPECT_EQ(records[0].category, "Bootstrap");
    EXPECT_EQ(records[0].message, GetParam().expected);
}

const std::string kWritable =
    " is writable by group or other — this bundle can be replaced and launchd would run the replacement as root";

INSTANTIATE_TEST_SUITE_P(
    Cases, InstallPathReport,
    ::testing::Values(
        ReportCase{"AllGood", true, [](InstallTree& t) { t.build(); },
                   "install path: every component root-owned and not group/other-writable — "
                   "/Library/PrivilegedHelperTools/test.orven.app/ORVEN Helper.app"},
        ReportCase{"MissingBundle", false, [](InstallTree& t) { t.build(kInstall); },
                   "install path: cannot stat /Library/PrivilegedHelperTools/test.orven.app/ORVEN Helper.app"},
        ReportCase{"NothingInstalled", false, [](InstallTree&) {}, "install path: cannot stat /Library"},
        ReportCase{"MissingInstallDirectory", false, [](InstallTree& t) { t.build(kTools); },
                   "install path: cannot stat /Library/PrivilegedHelperTools/test.orven.app"},
        ReportCase{"SymlinkToARootOwnedDirectory", true,
                   [](InstallTree& t) {
                       t.build(kTools);
                       const std::string target = t.local("/elsewhere");
                       std::filesystem::create_directories(target + "/ORVEN Helper.app");
                       ::chmod(target.c_str(), 0755);
                       ::chmod((target + "/ORVEN Helper.app").c_str(), 0755);
                       std::filesystem::create_directory_symlink(target, t.local(kInstall));
                   },
                   "install path: /Library/PrivilegedHelperTools/test.orven.app is a SYMLINK — root is executing "
                   "through an interposition point"},
        ReportCase{"SymlinkOwnedByAUserIsStillASymlink", true,
                   [](InstallTree& t) {
                       t.build(kInstall);
                       std::filesystem::create_directory_symlink(t.local(kInstall), t.local(kBundle));
                       ASSERT_EQ(::lchown(t.local(kBundle).c_str(), 501, 20), 0);
                   },
                   "install path: /Library/PrivilegedHelperTools/test.orven.app/ORVEN Helper.app is a SYMLINK — root "
                   "is executing through an interposition point"},
        ReportCase{"OwnedByAUser", true,
                   [](InstallTree& t) {
                       t.build();
                       ASSERT_EQ(::chown(t.local(kInstall).c_str(), 501, 20), 0);
                   },
                   "install path: /Library/PrivilegedHelperTools/test.orven.app is owned by uid 501, not root — this "
                   "bundle can be replaced without sudo and launchd would run the replacement as root"},
        ReportCase{"OwnerIsJudgedBeforeTheMode", true,
                   [](InstallTree& t) {
                       t.build();
                       ASSERT_EQ(::chown(t.local(kBundle).c_str(), 502, 20), 0);
                       ::chmod(t.local(kBundle).c_str(), 0777);
                   },
                   "install path: /Library/PrivilegedHelperTools/test.orven.app/ORVEN Helper.app is owned by uid 502, "
                   "not root — this bundle can be replaced without sudo and launchd would run the replacement as root"},
        ReportCase{"GroupWritable", true,
                   [](InstallTree& t) {
                       t.build();
                       ::chmod(t.local(kTools).c_str(), 0775);
                   },
                   "install path: /Library/PrivilegedHelperTools" + kWritable},
        ReportCase{"OtherWritable", true,
                   [](InstallTree& t) {
                       t.build();
                       ::chmod(t.local(kLibrary).c_str(), 01757);
                   },
                   "install path: /Library" + kWritable},
        ReportCase{"TheFirstFindingWins", true,
                   [](InstallTree& t) {
                       t.build();
                       ::chmod(t.local(kInstall).c_str(), 0770);
                       ASSERT_EQ(::chown(t.local(kBundle).c_str(), 501, 20), 0);
                   },
                   "install path: /Library/PrivilegedHelperTools/test.orven.app" + kWritable},
        ReportCase{"AWritableRootFolderIsNotExamined", true,
                   [](InstallTree& t) {
                       t.build();
                       ::chmod(t.folder.path().c_str(), 0777);
                   },
                   "install path: every component root-owned and not group/other-writable — "
                   "/Library/PrivilegedHelperTools/test.orven.app/ORVEN Helper.app"}),
    [](const auto& info) { return std::string(info.param.name); });

} // namespace
} // namespace orven

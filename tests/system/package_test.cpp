// What goes into a camera's image: complete, and true of the daemon that goes with it.

#include "head.h"
#include "lab/core/files.h"

#include <json-c/json.h>

#include <filesystem>
#include <set>

namespace {

namespace fs = std::filesystem;

/// The functions of the object "ptzd" that any role may call, one name for each time that one is named.
std::multiset<std::string> functionsOfRoles(const fs::path& file)
{
    std::multiset<std::string> functions;
    json_object* roles = json_object_from_file(file.c_str());
    EXPECT_NE(roles, nullptr) << json_util_get_last_err();
    json_object_object_foreach(roles, name, role)
    {
        json_object* list = nullptr;
        EXPECT_EQ(json_pointer_get(role, "/read/ubus/session", &list), 0) << name << " can neither ask nor log out";
        for (const char* half : {"/read/ubus/ptzd", "/write/ubus/ptzd"})
            for (size_t i = 0; json_pointer_get(role, half, &list) == 0 && i < json_object_array_length(list); ++i)
                functions.insert(json_object_get_string(json_object_array_get_idx(list, i)));
    }
    json_object_put(roles);
    return functions;
}

TEST_F(HeadInTheLab, ItsPackageFits)
{
    up();
    const fs::path image = lab.folder() + "/image";
    const std::string install = CMAKE_PROGRAM " --install " BUILD_FOLDER " --prefix /usr --component camera";
    ASSERT_EQ(std::system(("DESTDIR=" + image.string() + " " + install + " >" + lab.folder() + "/install.log").c_str()),
              0);
    for (const auto& entry : fs::directory_iterator(fs::path(SOURCE_FOLDER) / "package/config"))
        for (const char* folder : {"etc/config", "usr/share/ptzd/config"})
            EXPECT_EQ(readFile(image / folder / entry.path().filename()), readFile(entry.path())) << entry.path();
    for (const char* script : {"etc/init.d/ptzd", "etc/uci-defaults/50_ptzd"})
        EXPECT_TRUE(fs::exists(image / script)) << script;

    std::string listing;
    ASSERT_EQ(lab.run({"ubus", "-v", "list", "ptzd"}, listing), 0);
    std::multiset<std::string> functions{":subscribe"};
    for (size_t at = 0; (at = listing.find("\t\"", at)) != std::string::npos; ++at)
        functions.insert(listing.substr(at + 2, listing.find('"', at + 2) - at - 2));
    EXPECT_EQ(functionsOfRoles(image / "usr/share/rpcd/acl.d/ptzd.json"), functions) << "each in exactly one role";
}

} // namespace

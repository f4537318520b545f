// What goes into a camera's image: complete, and true of the daemon that goes with it.

#include "head.h"
#include "lab/core/files.h"

#include <json-c/json.h>

#include <filesystem>

namespace {

namespace fs = std::filesystem;

TEST_F(HeadInTheLab, ItsPackageFits)
{
    up();
    const fs::path image = lab.folder() + "/image";
    std::string text;
    const std::string install = CMAKE_PROGRAM " --install " BUILD_FOLDER " --prefix /usr --component camera";
    ASSERT_EQ(std::system(("DESTDIR=" + image.string() + " " + install + " >" + lab.folder() + "/install.log").c_str()),
              0);
    for (const auto& entry : fs::directory_iterator(fs::path(SOURCE_FOLDER) / "package/config"))
        EXPECT_EQ(readFile(image / "etc/config" / entry.path().filename()), readFile(entry.path())) << entry.path();

    ASSERT_EQ(lab.run({"sh", "-c",
                       "procd_open_instance() { :; }; procd_close_instance() { :; }\n"
                       "procd_set_param() { echo \"$*\"; }; . " +
                           image.string() + "/etc/init.d/ptzd && start_service"},
                      text),
              0);
    EXPECT_EQ(text.substr(0, text.find('\n')), "command /usr/bin/ptzd");

    std::string listing;
    ASSERT_EQ(lab.run({"ubus", "-v", "list", "ptzd"}, listing), 0);
    json_object* rights = json_object_from_file((image / "usr/share/acl.d/ptzd-clients.json").c_str());
    ASSERT_NE(rights, nullptr) << json_util_get_last_err();
    json_object* methods = nullptr;
    ASSERT_EQ(json_pointer_get(rights, "/access/ptzd/methods", &methods), 0);
    const size_t count = json_object_array_length(methods);
    EXPECT_EQ(count, 29U); // all thirty but `test`, which is for the factory
    for (size_t i = 0; i < count; ++i) {
        const std::string name = json_object_get_string(json_object_array_get_idx(methods, i));
        EXPECT_NE(listing.find("\"" + name + "\":{"), std::string::npos) << name;
    }
    json_object_put(rights);
}

} // namespace

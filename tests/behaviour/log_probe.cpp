// Logs one line and ends. A test copies this program to names with full stops in them and looks for the log folder.
// With the argument "replaced" another file has taken the place of the program's own by then, as after an update.

#include <filesystem>
#include <fstream>
#include <string>

#include "module.h"
#include "run_folder.h"

int main(int argc, char** argv) {
    if (argc > 1 && std::string(argv[1]) == "replaced") {
        const std::filesystem::path file = support::programFile();
        support::functions();  // the module is found beside it
        std::filesystem::remove(file);
        std::ofstream(file) << "an update";
    }
    CK_INFO info;
    return support::functions().C_GetInfo(&info) == CKR_CRYPTOKI_NOT_INITIALIZED ? 0 : 1;
}

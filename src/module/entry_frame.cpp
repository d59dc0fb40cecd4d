#include "module/entry_frame.h"

#include <exception>
#include <new>

namespace zentak {

CK_RV refuseException(const char* name) noexcept {
    try {
        throw;
    } catch (const std::bad_alloc&) {
        return refuse(CKR_HOST_MEMORY, name, ": out of memory");
    } catch (const std::exception& failure) {
        return refuse(CKR_FUNCTION_FAILED, name, ": unexpected exception: ", failure.what());
    } catch (...) {
        return refuse(CKR_FUNCTION_FAILED, name, ": unexpected exception");
    }
}

}  // namespace zentak

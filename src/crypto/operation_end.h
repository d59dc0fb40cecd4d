/// The end of a session's operation, whichever way a call leaves.

#ifndef ZENTAK_CRYPTO_OPERATION_END_H
#define ZENTAK_CRYPTO_OPERATION_END_H

#include "module/module_state.h"

namespace zentak {

/// Ends the session's operation when it goes out of scope, by a return or by an exception, unless it was told to keep
/// it.
class OperationEnd {
public:
    explicit OperationEnd(SessionRecord& session) : session_(session) {}
    ~OperationEnd() {
        if (!kept_) {
            session_.activeOperation = ActiveOperation::None;
        }
    }
    OperationEnd(const OperationEnd&) = delete;
    OperationEnd& operator=(const OperationEnd&) = delete;

    void keepOperation() { kept_ = true; }

private:
    SessionRecord& session_;
    bool kept_ = false;
};

}  // namespace zentak

#endif

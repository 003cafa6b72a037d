#ifndef DAEMON_H
#define DAEMON_H

/* A slot's control daemon, as far as all players of one are alike: where it listens, the requests
 * in a stream of bytes, and the answers. */

#include "support.h"
#include "uevgend_msg_i.h"

#include <algorithm>

struct question_t {
    bool set;
    uint32_t var, index;
    size_t length;       /* of the data that a GET asks for */
    std::string written; /* by a SET */
};

inline std::string daemon_path(int slot)
{
    return uevgend_svr_address(static_cast<uint32_t>(slot)).sun_path;
}

/* Takes a request from the front of what has come; false while it is not whole. */
inline bool take_question(std::string* bytes, question_t* asked)
{
    uevgend_set_msg_t request = {}; /* the other begins in the same way */
    bytes->copy(reinterpret_cast<char*>(&request), sizeof(request));
    const size_t length = std::max(size_t{request.head.usMsgLen}, UEVGEND_DATA_OFS);
    if (bytes->size() < length) {
        return false;
    }
    const ctrl_set_request_t& set = request.ctrl_set;
    const bool is_set = request.head.usMsgType == UEVGEND_MSG_SET;
    *asked = {is_set, set.ulVarId, set.ulIndex, is_set ? size_t{0} : set.usFlags,
              bytes->substr(UEVGEND_DATA_OFS, length - UEVGEND_DATA_OFS)};
    asked->written.resize(std::min<size_t>(asked->written.size(), set.usLength));
    bytes->erase(0, length);
    return true;
}

/* What is behind the data is filled up; a code other than 0 is a refusal. */
inline std::string answer_to(const question_t& asked, std::string_view data, int8_t code = 0)
{
    std::string bytes(UEVGEND_DATA_OFS + std::max(asked.length, UEVGEND_DATA_FIXED), 'E');
    uevgend_get_reply_msg_t reply = {};
    reply.head.usMsgType = asked.set ? UEVGEND_MSG_SET : UEVGEND_MSG_GET;
    reply.head.usMsgLen = static_cast<uint16_t>(bytes.size());
    reply.ctrl_get_reply.ulVarId = asked.var;
    reply.ctrl_get_reply.ulIndex = asked.index;
    reply.ctrl_get_reply.scErrCode = code;
    reply.ctrl_get_reply.usDataLen = static_cast<uint16_t>(asked.set ? 0 : data.size());
    memcpy(bytes.data(), &reply, UEVGEND_DATA_OFS);
    data.copy(&bytes[UEVGEND_DATA_OFS], bytes.size() - UEVGEND_DATA_OFS);
    return bytes;
}

#endif

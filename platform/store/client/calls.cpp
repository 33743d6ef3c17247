/* What the operations share that need not be inline. */
#include "client/calls.h"

#include <algorithm>

namespace store {

std::string &opening_text() {
    thread_local std::string text;
    return text;
}

Store *open_or_explain() noexcept {
    opening_text().clear();
    return open_store(opening_text());
}

int copy_text(std::string_view text, char *pbuf, unsigned int buf_len) {
    if (pbuf == nullptr || buf_len == 0) {
        return OMRALIB_ERR_BAD_ARGS;
    }
    const std::size_t len = std::min<std::size_t>(text.size(), buf_len - 1);
    std::copy_n(text.data(), len, pbuf);
    pbuf[len] = '\0';
    return OMRALIB_RET_SUCCESS;
}

void hand_over(HandleUse &use, Content content, unsigned int *pdata_len_out) {
    *pdata_len_out = content.length();
    if (content.length() != 0) {
        use->pending = std::move(content);
    }
}

} // namespace store

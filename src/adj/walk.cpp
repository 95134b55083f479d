// A resumable walk over a doubly linked queue, its cursor kept by the anchor service.
#include <cstdint>
#include <cstdlib>

#include "ipclient/adj.h"
#include "ipplat/platform.h"

namespace {

constexpr std::uint64_t kNoPosition = ~std::uint64_t{0};

ADJ_DTQ_NODE_S* node_at(std::uint64_t position) noexcept {
    return reinterpret_cast<ADJ_DTQ_NODE_S*>(static_cast<std::uintptr_t>(position));
}

std::uint64_t position_of(const ADJ_DTQ_NODE_S* node) noexcept {
    return static_cast<std::uint64_t>(reinterpret_cast<std::uintptr_t>(node));
}

void release_context(void* context) { std::free(context); }

}  // namespace

extern "C" {

uint64_t ADJ_DtqWalkReg(void* pAnchor, uint8_t ucKind, uint32_t uiKey, ADJ_DTQ_NODE_S* pstHead, uint64_t ulUser) {
    auto* ctx = static_cast<ADJ_DTQ_WALK_S*>(std::calloc(1, sizeof(ADJ_DTQ_WALK_S)));
    if (ctx == nullptr) return 0;
    ctx->ucKind = ucKind;
    ctx->uiKey = uiKey;
    ctx->pstHead = pstHead;
    ctx->ulUser = ulUser;
    const std::uint64_t path = ANCHOR_BeginPath(pAnchor, uiKey, 0, ctx);
    if (path == 0) std::free(ctx);
    return path;
}

void ADJ_DtqWalkUnReg(uint64_t ulHandle, void* pAnchor) {
    if (ulHandle == 0) return;
    ANCHOR_EndPath(pAnchor, ulHandle, &release_context);
}

uint64_t ADJ_GetDtqNext(uint64_t ulHandle, void* pAnchor, ADJ_DTQ_STEP_PF pfStep) {
    std::uint64_t position = 0;
    void* context = nullptr;
    if (pfStep == nullptr || ANCHOR_Inquire(pAnchor, ulHandle, &position, &context) != 0 || context == nullptr) {
        return 0;
    }
    auto* ctx = static_cast<ADJ_DTQ_WALK_S*>(context);
    if (position != ctx->ulLast) {
        // The element at the cursor was removed and the service put its successor there;
        // no successor (0) ends the walk.
        ctx->ulLast = position;
        if (position == 0) ctx->pstHead = nullptr;
        return position;
    }
    void* out = nullptr;
    const std::uint64_t next = pfStep(ctx->uiKey, position, ctx, &out);
    ctx->ulLast = next;
    (void)ANCHOR_Set(pAnchor, ulHandle, next);
    return next;
}

uint64_t ADJ_DtqWalkGetNext(uint32_t uiDirection, uint64_t ulPosition, void* pContext, void** ppContextOut) {
    auto* ctx = static_cast<ADJ_DTQ_WALK_S*>(pContext);
    if (ppContextOut != nullptr) *ppContextOut = ctx;
    if (ctx == nullptr) return 0;
    ctx->ulLast = kNoPosition;
    ADJ_DTQ_NODE_S* head = ctx->pstHead;
    if (head == nullptr) return 0;
    const bool forward = uiDirection == ADJ_DTQ_FORWARD;
    const ADJ_DTQ_NODE_S* from = ulPosition == 0 ? head : node_at(ulPosition);
    ADJ_DTQ_NODE_S* candidate = forward ? from->pstNext : from->pstPrev;
    if (head->pstPrev == head || candidate == nullptr || candidate == head) {
        ctx->pstHead = nullptr;  // the walk is finished
        return 0;
    }
    return position_of(candidate);
}

}  // extern "C"

/*
 * ptxt.h - the platform's configuration-text service: the builder through which features turn
 * their stored state into command text, one generation at a time.
 *
 * Generation. ptxt_hdl_init opens a generation and names it by a 32-bit handle (non-zero, never
 * reused in the process). Features declare elements in it and add text to them; the generation
 * ends with ptxt_respond (which renders the text and delivers it to the request's sink) or with
 * ptxt_hdl_release. ptxt_render renders a generation's text without ending it.
 *
 * Elements. An element is a block of text, named within a generation by its element number and
 * belonging to a group (group 180 is the zfx feature's). ptxt_elem_add declares it; declaring
 * the same (group, element) again changes nothing; the same element number in another group is
 * PTXT_ERR_EXISTS. Text can only be added to a declared element.
 *
 * Dependencies. ptxt_elem_dependency_add(handle, element, group, other) says that element's
 * text comes after the text of element other of group. It may be declared before either element
 * is; a dependency on an element that the generation never declares is ignored.
 *
 * Order of the rendered text. Elements are rendered in a topological order of their
 * dependencies; among the elements whose dependencies are all rendered, the one declared first
 * goes first. When none is ready (a cycle), the earliest declared of those left goes next, and
 * the walk carries on. An element without text renders nothing.
 *
 * Lines. Text is added in pieces; a "\n" ends a line and text up to the next "\n" (in the same
 * or in later pieces of the same element) continues the same line, which keeps the indentation
 * of the piece that began it. Indentation is two spaces per level, put before every line that
 * has any text (an empty line stays empty). ptxt_elem_str_add adds at the element's base level,
 * which is level 0 here. Each element's lines come in the order they were added; a line still
 * open when the text is rendered is ended with "\n".
 *
 * Lines for other groups (ptxt_elem_group_config_str_add) are kept apart from the elements and
 * rendered after all of them, in the order they were added, each one as a line of its own
 * (ended with "\n" when it does not end so), without indentation; an empty one adds nothing.
 *
 * Statuses: 0 or one of the PTXT_ codes below. Threads: calls may come from any thread; one
 * generation is used by one thread at a time.
 */
#ifndef PLAT_PTXT_H
#define PLAT_PTXT_H

#include "platform/plat_common.h"

PLAT_EXTERN_C_BEGIN

#define PTXT_ERR_HANDLE ((int32_t)0x404B0001)     /* no generation has this handle */
#define PTXT_ERR_INVALID ((int32_t)0x404B0002)    /* NULL argument, level above PTXT_LEVEL_MAX */
#define PTXT_ERR_NO_ELEMENT ((int32_t)0x404B0003) /* text for an element not declared */
#define PTXT_ERR_EXISTS ((int32_t)0x404B0004)     /* element number declared in another group */
#define PTXT_ERR_NO_MEMORY ((int32_t)0x404B0005)

#define PTXT_LEVEL_MAX 32u

/* Where ptxt_respond delivers a generation's text: text holds len characters and a terminating
 * NUL, and is valid during the call only. msg is the msg argument of ptxt_respond. The sink's
 * result is ptxt_respond's. */
typedef int32_t (*ptxt_sink)(void *sink_arg, void *msg, const char *text, uint32_t len);

/* A request of the configuration-text service: where the feature's stores live and where the
 * answer goes. Features see it as an opaque pointer and hand it back. */
typedef struct ptxt_request {
    const char *startup_cfg_prefix;       /* location prefix of the configuration stores */
    const char *startup_debug_cfg_prefix; /* location prefix of the debug stores */
    ptxt_sink sink;                       /* NULL: the text is dropped */
    void *sink_arg;
} ptxt_request;

/* Opens a generation; *handle receives its handle (0 on failure). */
PLAT_API int32_t ptxt_hdl_init(uint32_t *handle);
/* Ends a generation without delivering anything. */
PLAT_API int32_t ptxt_hdl_release(uint32_t handle);

/* The request's configuration and debug store prefixes (req is a ptxt_request); NULL when req
 * is NULL or has none. */
PLAT_API const char *ptxt_startup_cfg_uri_prefix_get(void *req);
PLAT_API const char *ptxt_startup_debug_cfg_uri_prefix_get(void *req);

PLAT_API int32_t ptxt_elem_add(uint32_t handle, uint32_t group, uint32_t element, uint32_t kind);
PLAT_API int32_t ptxt_elem_dependency_add(uint32_t handle, uint32_t element, uint32_t group, uint32_t other);
/* Adds text (a line, several lines, or a piece of a line; NUL-terminated) to an element. */
PLAT_API int32_t ptxt_elem_str_add(uint32_t handle, uint32_t element, const char *text);
PLAT_API int32_t ptxt_elem_str_add_indent(uint32_t handle, uint32_t element, const char *text, uint32_t level);
/* Adds a line to the configuration of another group; a and b are kept with it, unused here. */
PLAT_API int32_t ptxt_elem_group_config_str_add(uint32_t handle, uint32_t group, uint32_t a, uint32_t b,
                                                const char *text);

/* Renders the generation's text as described above into a block from malloc (NUL-terminated;
 * the caller frees it); *len receives its length (len may be NULL). The generation goes on. */
PLAT_API int32_t ptxt_render(uint32_t handle, char **text, uint32_t *len);
/* Renders the text, hands it to the request's sink (req is a ptxt_request) and ends the
 * generation, whatever happens. Returns the sink's result, 0 when there is no sink, or a PTXT_
 * code (PTXT_ERR_INVALID for a NULL req, the generation still ended). The memory the text lay in
 * is kept for the next generation (a service answering request after request writes into pages it
 * has touched already), so a process holds up to its largest text between generations. */
PLAT_API int32_t ptxt_respond(uint32_t handle, void *msg, void *req);

PLAT_EXTERN_C_END

#endif /* PLAT_PTXT_H */

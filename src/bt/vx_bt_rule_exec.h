/*
 * Rule execution: one request (URL, query, method, BT header) turned into
 * one BTObject, or into "exclude".
 *
 * Under pattern rules the id comes from the published state machines and
 * the object from the BT monitor's array: no name is built, no map touched,
 * no lock taken, nothing allocated. Under a custom or global rule a name is
 * built in a stack buffer and looked up (or made) under the flowpath's
 * updateBTLock and then bt_obj_map_lock.
 *
 * Threads: any request thread.
 */
#ifndef VX_BT_RULE_EXEC_H
#define VX_BT_RULE_EXEC_H

#include <apr_thread_mutex.h>

struct BTObject;
struct vxlbStateMachineforHeader;

extern "C" {
/* Null: the transaction is excluded. `btHeaderValue` (may be null) is
 * edited in place: the global rule's header item is cut out of it. */
BTObject* get_obj_from_bt_name(char* url, char* parameters, char* btHeaderValue,
                               apr_thread_mutex_t* updateBTLock, char* httpMethod);

/* The name by the global rule into btName (size bytes), or null when the
 * rule yields nothing. */
char* vxbt_execute_global_rule(char* uri, char* param, char* method, char* header, char* btName,
                               int size);
/* The name of the best custom keyword, or "others"; null when all three
 * inputs are null. */
char* vxbt_execute_custom_rule(char* uri, char* parameter, char* httpMethod, char* btName,
                               int size);
void vxbt_execute_header_rule(char* url, char* bt_name, int len);
void get_bt_name_from_url(char* url, char* btName, int len);
/* The value of the global rule's parameter in a query text (malloc'd, the
 * caller frees it), or null. */
char* get_param_value(char* param);
/* Refines a pattern id by the request's header tokens. */
int getBTHeader(const vxlbStateMachineforHeader* state_machine, char* header, int len, int BT_id);
}

#endif

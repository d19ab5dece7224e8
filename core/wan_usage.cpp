#include "core/wan_usage.h"

void ring_push(usage_entry* ring, uint32_t size, uint32_t* head, uint32_t* tail,
               const usage_entry& entry)
{
    ring[*head % size] = entry;
    *head += 1;
    if (*head % size == *tail % size)
        *tail += 1;
}

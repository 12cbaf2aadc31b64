/* Serves as C and as C++: reads a configuration and prints a value of it. */
#include <qvlib.h>

#include <stdio.h>

int main(void)
{
    uint64_t speed = 0;
    clparse_head *head = clparse_start("port = { speed = 8 }");
    if (!head || clparse_get_number(head, &speed, "port.speed") != 0)
        return 1;
    printf("%d %08x\n", (int)speed, (unsigned int)crc32c("123456789", 9));
    clparse_stop(head);
    return 0;
}

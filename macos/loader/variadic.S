// Apple's arm64 passes all variable arguments on the stack, 8 bytes each; Linux passes them in registers, as others.

#if defined(__aarch64__)

        .macro  from_stack name, register
        .globl  variadic_\name
        .type   variadic_\name, %function
variadic_\name:
        ldr     \register, [sp]
        b       \name
        .endm

        from_stack openFile, x2
        from_stack controlFile, x2
        from_stack curl_easy_setopt, x2
        from_stack curl_easy_getinfo, x2

        .globl  variadic_snprintf
        .type   variadic_snprintf, %function
variadic_snprintf:
        mov     x3, sp
        b       formatFromStack

#endif

        .section .note.GNU-stack, "", %progbits

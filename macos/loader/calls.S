// Where the images call what isn't called alike on Linux.

#if defined(__x86_64__)

// What images import as dyld_stub_binder: where a function's stub leads as long as the function isn't bound. The stub's
// helper has pushed which lazy binding it is, and an address in the image. All registers that hold arguments survive.
        .globl  stubBinder
        .type   stubBinder, @function
stubBinder:
        pushq   %rbp
        movq    %rsp, %rbp              // above it: address in the image, lazy binding, return address
        .irp    register, rax, rdi, rsi, rdx, rcx, r8, r9
        pushq   %\register
        .endr
        subq    $136, %rsp
        .irp    number, 0, 1, 2, 3, 4, 5, 6, 7
        movaps  %xmm\number, 16*\number(%rsp)
        .endr
        movq    16(%rbp), %rdi
        call    bindCalledFunction
        movq    %rax, %r11
        .irp    number, 0, 1, 2, 3, 4, 5, 6, 7
        movaps  16*\number(%rsp), %xmm\number
        .endr
        addq    $136, %rsp
        .irp    register, r9, r8, rcx, rdx, rsi, rdi, rax, rbp
        popq    %\register
        .endr
        addq    $16, %rsp
        jmp     *%r11

#elif defined(__aarch64__)

        .globl  stubBinder
        .type   stubBinder, %function
stubBinder:
        stp     x29, x30, [sp, #-16]!
        mov     x29, sp                 // above it: lazy binding, address in the image
        sub     sp, sp, #224
        .irp    number, 0, 1, 2, 3, 4, 5, 6, 7, 8
        str     x\number, [sp, #8*\number]
        str     q\number, [sp, #80+16*\number]
        .endr
        ldr     x0, [x29, #16]
        bl      bindCalledFunction
        mov     x16, x0
        .irp    number, 0, 1, 2, 3, 4, 5, 6, 7, 8
        ldr     x\number, [sp, #8*\number]
        ldr     q\number, [sp, #80+16*\number]
        .endr
        mov     sp, x29
        ldp     x29, x30, [sp], #32     // takes off what the helper pushed, too
        br      x16

// Apple's arm64 passes all variable arguments on the stack, 8 bytes each; Linux passes them in registers, as others.
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

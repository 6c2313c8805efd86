// Adapters for calls whose convention differs between macOS and Linux.

// "function NAME" begins one.
        .macro  function name
        .globl  \name
        .type   \name, %function
\name:
        .endm

// stubBinder is dyld_stub_binder: a function's stub leads to it until the function is bound. The stub's helper has
// pushed the number of the lazy binding and an address in the image. All registers that hold arguments survive.
//
// variadic_NAME is NAME for callers by macOS's convention: Apple's arm64 passes all variable arguments on the stack, 8
// bytes each; Linux passes them in registers, like others.
#if defined(__x86_64__)

        function stubBinder
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

        .macro  variadic name
        function variadic_\name
        jmp     \name@PLT
        .endm

        variadic snprintf

#elif defined(__aarch64__)

        function stubBinder
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

        .macro  variadic name
        function variadic_\name
        ldr     x2, [sp]
        b       \name
        .endm

        function variadic_snprintf
        mov     x3, sp
        b       formatFromStack

#endif

        variadic openFile
        variadic controlFile
        variadic curl_easy_setopt
        variadic curl_easy_getinfo

        .section .note.GNU-stack, "", %progbits

// What images import as dyld_stub_binder: where a function's stub leads as long as the function isn't bound. The stub's
// helper has pushed which lazy binding it is, and an address in the image. All registers that hold arguments have to
// survive.

#if defined(__x86_64__)

        .globl  stubBinder
        .type   stubBinder, @function
stubBinder:
        pushq   %rbp
        movq    %rsp, %rbp              // above it: address in the image, lazy binding, return address
        subq    $192, %rsp
        movq    %rdi, 0(%rsp)
        movq    %rsi, 8(%rsp)
        movq    %rdx, 16(%rsp)
        movq    %rcx, 24(%rsp)
        movq    %r8, 32(%rsp)
        movq    %r9, 40(%rsp)
        movq    %rax, 48(%rsp)          // how many vector registers variable arguments are in
        movaps  %xmm0, 64(%rsp)
        movaps  %xmm1, 80(%rsp)
        movaps  %xmm2, 96(%rsp)
        movaps  %xmm3, 112(%rsp)
        movaps  %xmm4, 128(%rsp)
        movaps  %xmm5, 144(%rsp)
        movaps  %xmm6, 160(%rsp)
        movaps  %xmm7, 176(%rsp)
        movq    8(%rbp), %rdi
        movq    16(%rbp), %rsi
        call    bindCalledFunction
        movq    %rax, %r11
        movq    0(%rsp), %rdi
        movq    8(%rsp), %rsi
        movq    16(%rsp), %rdx
        movq    24(%rsp), %rcx
        movq    32(%rsp), %r8
        movq    40(%rsp), %r9
        movq    48(%rsp), %rax
        movaps  64(%rsp), %xmm0
        movaps  80(%rsp), %xmm1
        movaps  96(%rsp), %xmm2
        movaps  112(%rsp), %xmm3
        movaps  128(%rsp), %xmm4
        movaps  144(%rsp), %xmm5
        movaps  160(%rsp), %xmm6
        movaps  176(%rsp), %xmm7
        leave
        addq    $16, %rsp
        jmp     *%r11

#elif defined(__aarch64__)

        .globl  stubBinder
        .type   stubBinder, %function
stubBinder:
        stp     x29, x30, [sp, #-16]!
        mov     x29, sp                 // above it: lazy binding, address in the image
        sub     sp, sp, #208
        stp     x0, x1, [sp, #0]
        stp     x2, x3, [sp, #16]
        stp     x4, x5, [sp, #32]
        stp     x6, x7, [sp, #48]
        str     x8, [sp, #64]           // where a large result goes
        stp     q0, q1, [sp, #80]
        stp     q2, q3, [sp, #112]
        stp     q4, q5, [sp, #144]
        stp     q6, q7, [sp, #176]
        ldr     x0, [x29, #24]
        ldr     x1, [x29, #16]
        bl      bindCalledFunction
        mov     x16, x0
        ldp     x0, x1, [sp, #0]
        ldp     x2, x3, [sp, #16]
        ldp     x4, x5, [sp, #32]
        ldp     x6, x7, [sp, #48]
        ldr     x8, [sp, #64]
        ldp     q0, q1, [sp, #80]
        ldp     q2, q3, [sp, #112]
        ldp     q4, q5, [sp, #144]
        ldp     q6, q7, [sp, #176]
        mov     sp, x29
        ldp     x29, x30, [sp], #32     // takes off what the helper pushed, too
        br      x16

#endif

        .section .note.GNU-stack, "", %progbits

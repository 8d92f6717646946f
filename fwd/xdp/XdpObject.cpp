// The XDP classifier's object file (flowspec.bpf.c, compiled by the build), linked into the
// library so that flowspec-fwd needs no file beside it.
#ifndef FS_XDP_OBJECT
#error FS_XDP_OBJECT names the compiled BPF object
#endif

__asm__(".section .rodata\n"
        ".balign 8\n"
        ".global fsXdpObject\n"
        ".hidden fsXdpObject\n"
        "fsXdpObject:\n"
        ".incbin \"" FS_XDP_OBJECT "\"\n"
        ".global fsXdpObjectEnd\n"
        ".hidden fsXdpObjectEnd\n"
        "fsXdpObjectEnd:\n"
        ".byte 0\n"
        ".previous\n");

// The thread's message queue: posted messages, socket notifications, hidden windows and the
// combined wait. Nothing is drawn. A queue, its windows and its notifications belong to the thread
// that made them; only PostMessageA may be called from others.
#pragma once

#include "platform/socket.h"
#include "platform/types.h"

#ifndef _WIN32
struct WindowRecord;
using HWND = WindowRecord*;
using HINSTANCE = void*;
using ATOM = WORD;
using WNDPROC = LRESULT (*)(HWND window, UINT message, WPARAM wParam, LPARAM lParam);

struct WNDCLASSA {
    UINT style;
    WNDPROC lpfnWndProc;
    int cbClsExtra;
    int cbWndExtra;
    HINSTANCE hInstance;
    void* hIcon;
    void* hCursor;
    void* hbrBackground;
    LPCSTR lpszMenuName;
    LPCSTR lpszClassName;
};
struct MSG {
    HWND hwnd;
    UINT message;
    WPARAM wParam;
    LPARAM lParam;
};

inline constexpr UINT WM_CREATE = 1;
inline constexpr UINT WM_DESTROY = 2;
inline constexpr UINT WM_QUIT = 0x12;
inline constexpr UINT WM_USER = 0x400;
inline constexpr UINT PM_NOREMOVE = 0;
inline constexpr UINT PM_REMOVE = 1;
inline constexpr int GWLP_USERDATA = -21;
inline constexpr int CW_USEDEFAULT = static_cast<int>(0x80000000U);
inline constexpr DWORD QS_ALLINPUT = 0x4FF;
inline constexpr long FD_ACCEPT = 8;

// 0 if the name is taken in this process.
ATOM RegisterClassA(const WNDCLASSA* windowClass);
// A hidden window of a registered class; WM_CREATE is sent before it returns. Null on failure.
HWND CreateWindowExA(DWORD exStyle, LPCSTR className, LPCSTR title, DWORD style, int x, int y,
                     int width, int height, HWND parent, void* menu, HINSTANCE instance,
                     LPVOID parameter);
BOOL DestroyWindow(HWND window);
LONG_PTR SetWindowLongPtrA(HWND window, int index, LONG_PTR value);
LONG_PTR GetWindowLongPtrA(HWND window, int index);
LRESULT DefWindowProcA(HWND window, UINT message, WPARAM wParam, LPARAM lParam);
BOOL PostMessageA(HWND window, UINT message, WPARAM wParam, LPARAM lParam);
void PostQuitMessage(int exitCode);

// Takes (PM_REMOVE) or looks at the first message of the calling thread; window null: any. FALSE if
// none.
BOOL PeekMessageA(MSG* message, HWND window, UINT first, UINT last, UINT remove);
BOOL TranslateMessage(const MSG* message);
LRESULT DispatchMessageA(const MSG* message);

// Posts `message` to the window when a connection waits on the listener (mask FD_ACCEPT; wParam the
// socket, lParam FD_ACCEPT), again after each notification that was taken as long as connections
// wait. Makes the socket non-blocking. Mask 0 ends it. 0, or -1.
int WSAAsyncSelect(SOCKET socket, HWND window, UINT message, long mask);

// As WaitForMultipleObjects; the result WAIT_OBJECT_0 + count says that the message queue isn't
// empty.
DWORD MsgWaitForMultipleObjects(DWORD count, const HANDLE* handles, BOOL waitAll,
                                DWORD milliseconds, DWORD wakeMask);
#endif

// Inside platform/: a socket was closed, or an accept on it failed for want of resources.
void ForgetAsyncSocket(SOCKET socket);
void HoldAsyncSockets();

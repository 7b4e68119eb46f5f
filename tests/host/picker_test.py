#!/usr/bin/env python3
"""The target picker as a person uses it: vesta-pick.exe under Wine on an Xvfb screen, mouse and
keys through xdotool, the dialog read from the Windows side by picker_window.exe. Arguments: the
folder of vesta-pick.exe, vesta-ctrl.exe and vesta-kx.exe; picker_window.exe; the screenshots'
folder. Wine's desktop process takes the display of whoever starts it, so the prefix's Wine
processes are ended before and after (the test runs alone)."""
import json, os, subprocess, sys, tempfile, time

BIN, DUMPER, SHOTS = sys.argv[1:4]
TEXTS = {  # caption, prompt, check box, column headers
    'C.UTF-8': ['Target Picker', 'Select the target to use for this action.',
                'Set selection as default target', ['Default', 'Target']],
    'ja_JP.UTF-8': ['ターゲット ピッカー', 'この操作に使用するターゲットを選択してください。',
                    '選択したターゲットをデフォルト ターゲットとして設定', ['デフォルト', 'ターゲット']]}
HOSTS, ROWS = ['devkit-alpha', 'devkit-beta', '192.168.40.99'], ['Alpha', 'Beta', '192.168.40.99']
CANCELLED = (2, '', 'vesta-pick: cancelled; no target was chosen')


def run(*args):
    """Runs a program to its end; its standard output. Files, not pipes, here and for vesta-pick:
    a server that the library starts keeps Wine's copies of them open."""
    with tempfile.TemporaryFile('w+') as out:
        subprocess.run(args, env=ENV, stdout=out, stderr=subprocess.DEVNULL, timeout=60)
        return out.seek(0) or out.read()


def default_host():
    targets = json.loads(run('wine', BIN + '/vesta-ctrl.exe', '--json', 'targets'))['targets']
    return next(t['host'] for t in targets if t['default'])


def tree():
    DUMP.stdin.write('\n')
    DUMP.stdin.flush()
    return json.loads(DUMP.stdout.readline())


def until(what, probe):
    """The dialog's window tree, once `probe` holds for it."""
    end = time.monotonic() + 30
    while not ((t := tree()) and probe(t)):
        assert time.monotonic() < end, 'no %s within 30 s' % what
        time.sleep(0.05)
    return t


def rows(t, key):
    return [row[key] for row in t['rows']]


def click(rect, dx=None, repeat='1'):
    x = rect[0] + dx if dx else (rect[0] + rect[2]) // 2
    run('xdotool', 'mousemove', str(x), str((rect[1] + rect[3]) // 2), 'click', '--repeat', repeat,
        '--delay', '100', '1')


def resize(before):
    """Drags the gripper 150 x 100 pixels further: the list grows, the rest keeps to the bottom."""
    grip = before['controls']['205']['rect']
    run('xdotool', 'mousemove', str(grip[2] - 4), str(grip[3] - 4), 'mousedown', '1')
    until('sizing', lambda t: t['sizing'])
    run('xdotool', 'mousemove', str(grip[2] + 150), str(grip[3] + 100))
    until('larger dialog', lambda t: t['client'][3] - before['client'][3] == 104)
    run('xdotool', 'mouseup', '1')
    after = until('end of sizing', lambda t: not t['sizing'])
    grow = [a - b for a, b in zip(after['client'], before['client'])]
    moved = lambda id: [a - b for a, b in zip(after['controls'][id]['rect'],
                                              before['controls'][id]['rect'])]
    assert moved('202') == [0, 0, grow[2], grow[3]], (before, after)
    assert moved('1') == moved('2') == [grow[2], grow[3]] * 2, (before, after)
    assert moved('204') == [0, grow[3], grow[2], grow[3]], (before, after)


row = lambda i, **kw: lambda t: click(t['rows'][i]['rect'], **kw)
button = lambda id, **kw: lambda t: click(t['controls'][str(id)]['rect'], **kw)
key = lambda name: lambda t: run('xdotool', 'key', name)
selected = lambda i: lambda t: rows(t, 'selected')[i]
# Language; steps: what the person does, then what the dialog shows; how vesta-pick ends; the
# default target after. Every step leaves the ticks alone: only the default's row has one.
CASES = [
    ('C.UTF-8', [(row(1, dx=10), None),  # a click on Beta's box
                 (row(2), selected(2)), (key('Home'), selected(0)),
                 (key('space'), None),  # Alpha's box, by keyboard
                 (key('Down'), selected(1)), (resize, None), (button(2), None)],
     CANCELLED, 'devkit-alpha'),
    ('C.UTF-8', [(button(1), None),  # OK with nothing chosen: the dialog stays
                 (row(1), selected(1)), (row(1, repeat='2'), None)],
     (0, 'devkit-beta', ''), 'devkit-alpha'),
    ('C.UTF-8', [(row(1), selected(1)),
                 (button(204, dx=6), lambda t: t['controls']['204']['checked']),  # set as default
                 (button(1), None)], (0, 'devkit-beta', ''), 'devkit-beta'),
    ('ja_JP.UTF-8', [(key('Escape'), None)], CANCELLED, 'devkit-beta'),
]


def picker_case(lang, steps, end, default_after):
    ticks = [host == default_host() for host in HOSTS]
    out, err = tempfile.TemporaryFile('w+'), tempfile.TemporaryFile('w+')
    picker = subprocess.Popen(['wine', BIN + '/vesta-pick.exe'], env=dict(ENV, LC_ALL=lang),
                              stdout=out, stderr=err)
    t = until('picker window', lambda t: True)
    texts = [t['caption'], t['controls']['203']['text'], t['controls']['204']['text'], t['columns']]
    assert texts == TEXTS[lang] and rows(t, 'text') == ROWS, t
    assert rows(t, 'checked') == ticks and not any(rows(t, 'selected')), t
    run('xwd', '-root', '-silent', '-out', '%s/picker-%s.xwd' % (SHOTS, lang[:2]))
    for number, (action, shows) in enumerate(steps):
        action(t)
        t = until('the effect of step %d' % number, shows) if shows else tree()
        assert t is None or rows(t, 'checked') == ticks, t
    picker.wait(timeout=30)
    assert (picker.returncode,) + tuple(f.seek(0) or f.read().strip() for f in (out, err)) == end
    assert default_host() == default_after


if __name__ == '__main__':
    os.makedirs(SHOTS, exist_ok=True)
    xvfb = subprocess.Popen(['Xvfb', '-displayfd', '1', '-screen', '0', '1024x768x24', '-nolisten',
                             'tcp'], stdout=subprocess.PIPE, text=True)
    ENV = dict(os.environ, DISPLAY=':' + xvfb.stdout.readline().strip(), WINEDEBUG='-all')
    run('wineserver', '-k')
    # Windows that Wine frames itself: no window manager here to draw captions or to answer
    # Wine's wait (2 s) for each window it hides.
    run('wine', 'reg', 'add', r'HKCU\Software\Wine\X11 Driver', '/v', 'Managed', '/d', 'N', '/f')
    run('wine', BIN + '/vesta-ctrl.exe', 'server', 'stop')  # the built-in scenario, fresh
    DUMP = subprocess.Popen(['wine', DUMPER], env=ENV, text=True, encoding='utf-8',
                            stdin=subprocess.PIPE, stdout=subprocess.PIPE)
    try:
        for number, case in enumerate(CASES):
            started = time.monotonic()
            picker_case(*case)
            print('case %d (%s): passed in %.1f s' % (number, case[0], time.monotonic() - started))
        print('all picker checks passed')
    finally:
        run('wine', BIN + '/vesta-ctrl.exe', 'server', 'stop')
        DUMP.stdin.close()
        run('wineserver', '-k')
        xvfb.terminate()

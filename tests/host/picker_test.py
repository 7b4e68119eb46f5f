#!/usr/bin/env python3
"""The target picker as a person uses it: vesta-pick.exe under Wine on an Xvfb screen of its own,
mouse and keyboard through xdotool, the dialog read from the Windows side by picker_window.exe.
Arguments: the folder of vesta-pick.exe, vesta-ctrl.exe and vesta-kx.exe; picker_window.exe; the
folder for the screenshots. Wine's desktop process takes the display of whoever starts it, so the
prefix's Wine processes are ended before and after (the test runs alone)."""
import json, os, subprocess, sys, tempfile, time

BIN, DUMPER, SHOTS = sys.argv[1:4]
TEXTS = {  # caption, prompt, check box, column headers
    'C.UTF-8': ('Target Picker', 'Select the target to use for this action.',
                'Set selection as default target', ['Default', 'Target']),
    'ja_JP.UTF-8': ('ターゲット ピッカー', 'この操作に使用するターゲットを選択してください。',
                    '選択したターゲットをデフォルト ターゲットとして設定', ['デフォルト', 'ターゲット'])}
ROWS = ['Alpha', 'Beta', '192.168.40.99']  # the built-in kits; the last one has no name to read


def wait_for(what, probe, limit=30):
    end = time.monotonic() + limit
    while time.monotonic() < end:
        if (value := probe()):
            return value
        time.sleep(0.05)
    raise AssertionError('no ' + what + ' within %d s' % limit)


def run(*args, env=None):
    return subprocess.run(args, env=env or ENV, capture_output=True, text=True, timeout=60)


def default_host():
    targets = json.loads(run('wine', BIN + '/vesta-ctrl.exe', '--json', 'targets').stdout)
    return [t['host'] for t in targets['targets'] if t['default']]


class Picker:
    """One vesta-pick.exe and its dialog, in the user interface language `lang`."""

    def __init__(self, lang='C.UTF-8'):
        self.lang, env = lang, dict(ENV, LC_ALL=lang)
        # Files, not pipes: the server that the library starts keeps Wine's copies of them open.
        self.out, self.err = tempfile.TemporaryFile('w+'), tempfile.TemporaryFile('w+')
        self.process = subprocess.Popen(['wine', BIN + '/vesta-pick.exe'], env=env,
                                        stdout=self.out, stderr=self.err)
        self.tree = wait_for('picker window', self.read)

    def read(self):
        DUMP.stdin.write('\n')
        DUMP.stdin.flush()
        self.tree = json.loads(DUMP.stdout.readline())
        return self.tree

    def control(self, id):
        return self.tree['controls'][str(id)]

    def click(self, rect, dx=None, button='1', repeat='1'):
        x = rect[0] + dx if dx is not None else (rect[0] + rect[2]) // 2
        run('xdotool', 'mousemove', str(x), str((rect[1] + rect[3]) // 2), 'click', '--repeat',
            repeat, '--delay', '100', button)

    def until(self, what, probe):
        return wait_for(what, lambda: probe(self.read()) and self.tree)

    def state(self, key):
        return [row[key] for row in self.tree['rows']]

    def ended(self):
        self.process.wait(timeout=30)
        return (self.process.returncode,) + tuple(f.seek(0) or f.read().strip()
                                                   for f in (self.out, self.err))


def check(picker, lang, shot):
    caption, prompt, box, columns = TEXTS[lang]
    tree = picker.tree
    assert (tree['caption'], picker.control(203)['text'], picker.control(204)['text'],
            tree['columns']) == (caption, prompt, box, columns), tree
    assert picker.state('text') == ROWS and picker.control(1)['text'] == 'OK', tree
    subprocess.run(['xwd', '-root', '-silent', '-out', SHOTS + '/' + shot], env=ENV, check=True)


def typing_and_ticking_and_resizing_then_cancel():
    picker = Picker()
    check(picker, 'C.UTF-8', 'picker-en.xwd')
    assert picker.state('checked') == [True, False, False], picker.tree
    assert picker.state('selected') == [False, False, False], picker.tree
    rows = picker.state('rect')
    for action, selected in [(lambda: picker.click(rows[1], dx=10), None),  # tick Beta's box
                             (lambda: picker.click(rows[2]), 2),
                             (lambda: run('xdotool', 'key', 'Home'), 0),
                             (lambda: run('xdotool', 'key', 'space'), None),  # untick Alpha's
                             (lambda: run('xdotool', 'key', 'Down'), 1)]:
        action()
        if selected is not None:
            picker.until('selection of row %d' % selected,
                         lambda t: picker.state('selected')[selected])
        assert picker.state('checked') == [True, False, False], picker.tree
    before = picker.tree
    grip = picker.control(205)['rect']
    run('xdotool', 'mousemove', str(grip[2] - 4), str(grip[3] - 4), 'mousedown', '1')
    picker.until('sizing', lambda t: t['sizing'])
    run('xdotool', 'mousemove', str(grip[2] + 150), str(grip[3] + 100))
    picker.until('larger dialog', lambda t: t['client'][3] - before['client'][3] == 104)
    run('xdotool', 'mouseup', '1')
    after = picker.until('sizing ended', lambda t: not t['sizing'])
    grow = [after['client'][i] - before['client'][i] for i in range(4)]
    moved = lambda id, i: after['controls'][id]['rect'][i] - before['controls'][id]['rect'][i]
    assert [moved('202', i) for i in range(4)] == [0, 0, grow[2], grow[3]], (before, after)
    for id in ['1', '2', '204']:
        assert moved(id, 1) == moved(id, 3) == grow[3], (id, before, after)
    picker.click(picker.control(2)['rect'])
    assert picker.ended() == (2, '', 'vesta-pick: cancelled; no target was chosen')
    assert default_host() == ['devkit-alpha']


def ok_without_choice_then_double_click():
    picker = Picker()
    picker.click(picker.control(1)['rect'])
    picker.click(picker.tree['rows'][1]['rect'])
    picker.until('selection of Beta', lambda t: picker.state('selected')[1])
    picker.click(picker.tree['rows'][1]['rect'], repeat='2')
    assert picker.ended() == (0, 'devkit-beta', '')
    assert default_host() == ['devkit-alpha']


def chosen_as_default():
    picker = Picker()
    picker.click(picker.tree['rows'][1]['rect'])
    picker.click(picker.control(204)['rect'], dx=6)
    picker.until('ticked check box', lambda t: picker.control(204)['checked'] == 1)
    picker.click(picker.control(1)['rect'])
    assert picker.ended() == (0, 'devkit-beta', '')
    assert default_host() == ['devkit-beta']


def japanese_shows_the_new_default_and_escape_cancels():
    picker = Picker('ja_JP.UTF-8')
    check(picker, 'ja_JP.UTF-8', 'picker-ja.xwd')
    assert picker.state('checked') == [False, True, False], picker.tree
    run('xdotool', 'key', 'Escape')
    assert picker.ended()[0] == 2


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
        for case in [typing_and_ticking_and_resizing_then_cancel, ok_without_choice_then_double_click,
                     chosen_as_default, japanese_shows_the_new_default_and_escape_cancels]:
            started = time.monotonic()
            case()
            print('%s: passed in %.1f s' % (case.__name__, time.monotonic() - started))
        print('all picker checks passed')
    finally:
        run('wine', BIN + '/vesta-ctrl.exe', 'server', 'stop')
        DUMP.stdin.close()
        run('wineserver', '-k')
        xvfb.terminate()

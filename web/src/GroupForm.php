<?php

declare(strict_types=1);

namespace Korlo\SettingsPage;

/**
 * Draws the form of a group.
 *
 * A row holds a key: its value as it was drawn, in a hidden field, and the field to edit it. Names are in hexadecimal
 * wherever they are more than shown; Form reads what comes back.
 */
final class GroupForm
{
    private const MOST_KEYS = 400;  // of one form: PHP takes a thousand fields, and a key has two
    private const LONGEST_VALUE = 65536;  // that is edited
    private const BEGINNING = 1000;  // of a longer one

    private readonly string $id;

    /**
     * @param ?array<string> $values null: there is no such group any more
     * @param bool $hasLabels false: fields carry their names themselves, since Chromium looks at every label of a page
     *        for each of its forms, for half a minute where there are a thousand
     */
    public function __construct(
        private readonly ?Marks $marks,
        private readonly string $token,
        private readonly string $group,
        private readonly ?array $values,
        private readonly ?Draft $draft,
        private readonly bool $hasLabels
    ) {
        $this->id = bin2hex($group);
    }

    /**
     * A group of very many keys gets several forms.
     *
     * @param list<string|int> $keys those of the group that are shown
     */
    public function draw(array $keys, bool $isShown): Html
    {
        $rows = [];
        foreach (array_unique([...$keys, ...array_keys($this->draft?->now ?? [])]) as $key) {
            $rows[] = $this->row((string)$key);
        }
        if (count($keys) < count($this->values ?? [])) {
            $rows[] = Html::of("<p>This group has more keys than one page can show.</p>\n");
        }
        $parts = array_chunk($rows, self::MOST_KEYS) ?: [[]];
        $forms = [Html::of('')];
        foreach ($parts as $number => $part) {
            $end = $number === 0 ? $this->end() : self::button('save', 'Save');
            $forms[] = $this->part($number, Html::join(...$part, ...[$end]), $isShown);
        }
        return Html::join(...$forms);
    }

    /**
     * A group that has nothing but defaults, since it was erased.
     */
    public static function erased(string $group, string $token, bool $isShown): Html
    {
        return Html::of(
            <<<'HTML'
            <form method="post" data-erased="%s" id="g-%s" aria-labelledby="h-%s"%s><h2 id="h-%s">%s</h2>
            <input type="hidden" name="token" value="%s"><input type="hidden" name="group" value="%s">
            <input type="hidden" name="digest" value=""><p><mark>erased</mark> It has defaults.</p>%s</form>

            HTML,
            Text::shown($group),
            bin2hex($group),
            bin2hex($group),
            $isShown ? '' : Html::of(' hidden'),
            bin2hex($group),
            self::name($group),
            $token,
            bin2hex($group),
            Store::canName($group) ? self::button('restore', 'Restore defaults') : ''
        );
    }

    public static function forNewGroup(string $token): Html
    {
        return Html::of(
            <<<'HTML'
            <form method="post" id="new-group" aria-labelledby="h-new" autocomplete="off"><h2 id="h-new">New group</h2>
            <input type="hidden" name="token" value="%s"><div class="add">
            <p><label for="ng">Name</label> <input id="ng" name="new-group"></p>
            <p><label for="nk">First key</label> <input id="nk" name="new-key"></p>
            <p><label for="nv">Its value</label> <input id="nv" name="new-value"></p>
            %s</div></form>

            HTML,
            $token,
            self::button('add', 'Add group')
        );
    }

    private function part(int $number, Html $content, bool $isShown): Html
    {
        $id = $this->id . ($number === 0 ? '' : ".$number");
        $digest = Store::digest($this->values);
        return Html::of(
            <<<'HTML'
            <form method="post" data-group="%s" id="g-%s" data-digest="%s" aria-labelledby="h-%s" autocomplete="off"%s>
            <h2 id="h-%s">%s</h2><input type="hidden" name="token" value="%s">
            <input type="hidden" name="group" value="%s"><input type="hidden" name="digest" value="%s">
            %s</form>

            HTML,
            Text::shown($this->group),
            $id,
            $digest,
            $id,
            $isShown ? '' : Html::of(' hidden'),
            $id,
            $number === 0 ? self::name($this->group) : Html::of('%s, part %s', self::name($this->group), $number + 1),
            $this->token,
            $this->id,
            $digest,
            $content
        );
    }

    /**
     * One template, filled once: a page may have ten thousand rows.
     */
    private function row(string $key): Html
    {
        $value = $this->values[$key] ?? null;  // null: it was erased while somebody edited it
        $typed = $this->draft?->now[$key] ?? null;
        $was = $typed === null ? $value : $this->draft->was[$key];
        $canEdit = $typed !== null || self::canEdit((string)$value);
        $text = $typed ?? self::shown((string)$value);
        $note = $this->note($key, $value);
        $hidden = '<input type="hidden" name="was:%1$s" value="%4$s">';
        $attributes = ($this->hasLabels ? ' id="k-%2$s-%1$s"' : ' aria-label="%3$s"') . ' data-key="%3$s"' .
            ($canEdit ? ' name="now:%1$s"' : ' readonly') .
            ($note === null ? '' : ' aria-describedby="n-%2$s-%1$s"');
        $field = str_contains($text, "\n")
            ? "<textarea$attributes rows=\"3\">\n%5\$s</textarea>"
            : "<input$attributes value=\"%5\$s\">";
        $label = $this->hasLabels ? '<label for="k-%2$s-%1$s">%7$s</label> ' : '<span>%7$s</span> ';
        return Html::of(
            "<p data-row=\"%1\$s\">$label" .
            ($canEdit && $was !== null ? $hidden : '') . $field .
            ($note === null ? '' : ' <small id="n-%2$s-%1$s">%6$s</small>') . "</p>\n",
            bin2hex($key),
            $this->id,
            Text::shown($key),
            (string)$was,
            $text,
            $note ?? '',
            self::name($key)
        );
    }

    /**
     * How a key is marked, and why it cannot be edited.
     */
    private function note(string $key, ?string $value): ?Html
    {
        if ($value === null) {
            return Html::of('<mark>erased elsewhere</mark>');
        }
        $mark = $this->marks?->of($this->group, $key, $value);
        if (self::canEdit($value)) {
            return $mark;
        }
        $reason = Text::isText($value) ? 'are too long for a form' : 'are no text';
        return Html::of('%s Read only: its %s bytes %s.', $mark ?? '', strlen($value), $reason);
    }

    private static function canEdit(string $value): bool
    {
        return strlen($value) <= self::LONGEST_VALUE && Text::isText($value);
    }

    private static function shown(string $value): string
    {
        $text = Text::shown(substr($value, 0, self::LONGEST_VALUE));
        return strlen($value) <= self::LONGEST_VALUE ? $text : Text::cut($text, self::BEGINNING);
    }

    /**
     * What stands below the keys. Save is the first button: Enter in a field presses it.
     */
    private function end(): Html
    {
        $whole = Store::canName($this->group)
            ? Html::join(self::button('restore', 'Restore defaults'), self::button('erase', 'Erase group'))
            : Html::of('<p>No request can name this group alone, so it cannot be erased or restored here.</p>');
        return Html::of(
            <<<'HTML'
            %s%s%s
            <div class="add">%s
            %s
            %s</div>%s
            HTML,
            $this->missing(),
            self::button('save', 'Save'),
            $this->conflicts(),
            $this->newField('new-key', 'New key', $this->draft?->newKey ?? ''),
            $this->newField('new-value', 'Its value', $this->draft?->newValue ?? ''),
            self::button('add', 'Add'),
            $whole
        );
    }

    private function newField(string $name, string $label, string $text): Html
    {
        return Html::of(
            $this->hasLabels
                ? '<p><label for="%1$s-%2$s">%3$s</label> <input id="%1$s-%2$s" name="%1$s" value="%4$s"></p>'
                : '<p><span>%3$s</span> <input aria-label="%3$s" name="%1$s" value="%4$s"></p>',
            $name,
            $this->id,
            $label,
            $text
        );
    }

    /**
     * What the defaults have, and the group has not.
     */
    private function missing(): Html
    {
        $entries = [Html::of('')];
        foreach ($this->marks?->missing($this->group, $this->values ?? []) ?? [] as $key => $default) {
            $entries[] = Html::of('<li>%s, default: <q>%s</q></li>', self::name((string)$key), Text::shown($default));
        }
        return count($entries) === 1
            ? $entries[0]
            : Html::of("<div data-missing><mark>erased</mark><ul>%s</ul></div>\n", Html::join(...$entries));
    }

    /**
     * What somebody has typed against what somebody else has saved meanwhile, and the choice.
     */
    private function conflicts(): Html
    {
        $entries = [Html::of('')];
        foreach ($this->draft?->conflicts ?? [] as $key => $theirs) {
            $entries[] = $this->conflict((string)$key, $theirs);
        }
        return count($entries) === 1
            ? $entries[0]
            : Html::of(
                '<div data-conflict tabindex="-1" autofocus><p>Somebody else has changed what you edited:</p>' .
                '<ul>%s</ul></div>',
                Html::join(...$entries)
            );
    }

    private function conflict(string $key, ?string $theirs): Html
    {
        $hex = bin2hex($key);
        return Html::of(
            <<<'HTML'
            <li><b>%s</b>: yours is %s, theirs is %s, and it was %s. %s
            <button name="take" value="mine:%s" data-action="take-mine">Save mine</button>
            <button name="take" value="theirs:%s" data-action="take-theirs">Keep theirs</button></li>
            HTML,
            self::name($key),
            self::side('data-mine', $this->draft->now[$key]),
            self::side('data-theirs', $theirs),
            self::side('data-was', $this->draft->was[$key]),
            $theirs === null ? '' : self::hidden("theirs:$hex", bin2hex($theirs)),
            $hex,
            $hex
        );
    }

    private static function side(string $attribute, ?string $value): Html
    {
        return $value === null
            ? Html::of('<i %s>erased</i>', $attribute)
            : Html::of('<q %s>%s</q>', $attribute, self::shown($value));
    }

    private static function name(string $name): Html
    {
        return $name === '' ? Html::of('<i>no name</i>') : Html::of('%s', Text::shown($name));
    }

    private static function hidden(string $name, string $value): Html
    {
        return Html::of('<input type="hidden" name="%s" value="%s">', $name, $value);
    }

    private static function button(string $action, string $text): Html
    {
        return Html::of('<button name="action" value="%s" data-action="%s">%s</button> ', $action, $action, $text);
    }
}

<?php

declare(strict_types=1);

namespace Korlo\SettingsPage;

/**
 * Draws the page: what is said, the filter, a form for each group, and one for a new group.
 */
final class View
{
    private const MOST_BYTES = 4 * 1024 * 1024;  // of names and values on one page, and
    private const BYTES_OF_KEY = 200;  // what each key costs besides
    private const MANY_GROUPS = 100;
    private const STYLE = 'vendor/simple.min.css';  // the page is usable without it

    private int $bytesLeft = self::MOST_BYTES;
    private bool $isLong = false;     // there are so many groups that browsers need help
    private bool $isPartial = false;  // the page does not hold all groups

    /**
     * @param string $token that forms have to send
     * @param string $filter as typed
     */
    public function __construct(
        private readonly ?Marks $marks,
        private readonly string $token,
        private readonly string $filter,
        private readonly ?Draft $draft
    ) {
    }

    /**
     * @param array<array<string>> $settings
     * @param list<string> $erased the groups that have nothing but defaults
     * @return iterable<Html> the page, in pieces
     */
    public function page(string $said, bool $isError, array $settings, array $erased): iterable
    {
        yield self::head($isError ? 'Error: Settings' : 'Settings', false);
        yield self::messages($said, $isError);
        yield $this->search();
        $this->isLong = count($settings) > self::MANY_GROUPS;
        yield Html::of("<main id=\"groups\"%s>\n", $this->isLong ? Html::of(' data-long') : '');
        $this->isPartial = array_sum(array_map(self::cost(...), $settings)) > self::MOST_BYTES;
        foreach ($settings as $group => $values) {
            yield $this->group((string)$group, $values);
        }
        if ($this->draft !== null && $this->draft->now !== [] && !isset($settings[$this->draft->group])) {
            yield $this->group($this->draft->group, null);  // it was erased meanwhile; what was typed stays
            $erased = array_diff($erased, [$this->draft->group]);
        }
        foreach ($erased as $group) {
            yield GroupForm::erased($group, $this->token, $this->isFound($group, []));
        }
        if ($this->isPartial) {
            yield Html::of("<p data-partial>One page cannot show all settings. Filter them to see others.</p>\n");
        }
        yield GroupForm::forNewGroup($this->token);
        yield Html::of("</main>\n</body>\n</html>\n");
    }

    /**
     * A page that has nothing to show but why.
     *
     * @param bool $comesBack the settings will be there again by themselves
     * @return iterable<Html>
     */
    public static function failure(string $why, bool $comesBack): iterable
    {
        yield self::head('Error: Settings', $comesBack);
        yield self::messages($why, true);
        yield Html::of('<main id="groups"%s></main>', $comesBack ? Html::of(' data-away') : '');
        yield Html::of("\n</body>\n</html>\n");
    }

    private static function head(string $title, bool $comesBack): Html
    {
        $hasStyle = is_file(__DIR__ . '/../public/' . self::STYLE);
        return Html::of(
            <<<'HTML'
            <!DOCTYPE html>
            <html lang="en">
            <head>
            <meta charset="utf-8">
            <title>%s</title>
            <meta name="viewport" content="width=device-width">
            %s%s<link rel="stylesheet" href="page.css">
            <link rel="icon" href="icon.svg">
            <script type="module" src="page.js"></script>
            </head>
            <body>
            <header><h1>Settings</h1></header>

            HTML,
            $title,
            $comesBack ? Html::of('<noscript><meta http-equiv="refresh" content="5"></noscript>') : '',
            $hasStyle ? Html::of('<link rel="stylesheet" href="%s">', self::STYLE) : ''
        );
    }

    /**
     * Both places are there before anything is said in them, so that a screen reader tells it.
     */
    private static function messages(string $said, bool $isError): Html
    {
        return Html::of(
            "<div id=\"messages\"><p role=\"status\">%s</p><p role=\"alert\">%s</p></div>\n",
            $isError ? '' : $said,
            $isError ? $said : ''
        );
    }

    private function search(): Html
    {
        return Html::of(
            <<<'HTML'
            <form role="search" autocomplete="off"><label for="filter">Filter groups and keys</label>
            <input type="search" id="filter" name="q" value="%s"> <button>Filter</button>
            <span id="count" aria-live="polite"></span></form>

            HTML,
            $this->filter
        );
    }

    /**
     * @param ?array<string> $values null: there is no such group
     */
    private function group(string $group, ?array $values): Html
    {
        $draft = $this->draft?->group === $group ? $this->draft : null;
        $isFound = $draft !== null || $this->isFound($group, $values ?? []);
        if ($this->isPartial && (!$isFound || $this->bytesLeft < 0)) {
            return Html::of('');
        }
        $cost = self::cost($values ?? []);
        $shown = $this->bytesLeft >= $cost ? $values ?? [] : $this->beginning($values);
        $this->bytesLeft -= $cost;
        $form = new GroupForm($this->marks, $this->token, $group, $values, $draft, !$this->isLong);
        return $form->draw(array_keys($shown), $isFound);
    }

    /**
     * The keys for which there is still room.
     *
     * @param array<string> $values
     * @return array<string>
     */
    private function beginning(array $values): array
    {
        $left = $this->bytesLeft;
        $keys = [];
        foreach ($values as $key => $value) {
            $left -= self::costOfKey((string)$key, $value);
            if ($left < 0) {
                break;
            }
            $keys[$key] = $value;
        }
        return $keys;
    }

    /**
     * @param array<string> $values
     */
    private static function cost(array $values): int
    {
        return array_sum(array_map(self::costOfKey(...), array_map('strval', array_keys($values)), $values));
    }

    private static function costOfKey(string $key, string $value): int
    {
        return self::BYTES_OF_KEY + strlen($key) + strlen($value);
    }

    /**
     * Whether the filter selects a group: by its name or one of its keys, upper and lower case alike.
     *
     * @param array<string> $values
     */
    private function isFound(string $group, array $values): bool
    {
        if ($this->filter === '') {
            return true;
        }
        $names = array_map(static fn(string|int $name): string => Text::shown((string)$name), array_keys($values));
        $text = implode("\n", [Text::shown($group), ...$names]);
        return preg_match('/' . preg_quote($this->filter, '/') . '/iu', $text) === 1;
    }
}

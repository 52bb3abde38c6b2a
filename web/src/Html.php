<?php

declare(strict_types=1);

namespace Korlo\SettingsPage;

/**
 * A piece of HTML. This is the one place where text is escaped: whatever fills a template is, unless it is HTML
 * already.
 *
 *     Html::of('<p class="%s">%s</p>', $class, $text);
 */
final class Html
{
    private function __construct(private readonly string $code)
    {
    }

    /**
     * @param string $template with %s for each part; attributes stand in double quotes
     */
    public static function of(string $template, self|string|int ...$parts): self
    {
        return new self(vsprintf($template, array_map(self::escape(...), $parts)));
    }

    public static function join(self ...$pieces): self
    {
        return new self(implode('', array_map(self::escape(...), $pieces)));
    }

    public function __toString(): string
    {
        return $this->code;
    }

    private static function escape(self|string|int $part): string
    {
        return $part instanceof self ? $part->code : htmlspecialchars((string)$part, ENT_QUOTES | ENT_SUBSTITUTE);
    }
}

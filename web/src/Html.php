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
    private const QUOTES = ENT_QUOTES | ENT_SUBSTITUTE;

    private function __construct(private readonly string $code)
    {
    }

    /**
     * @param string $template with %s for each part; attributes stand in double quotes
     */
    public static function of(string $template, self|string|int ...$parts): self
    {
        foreach ($parts as &$part) {
            $part = $part instanceof self ? $part->code : htmlspecialchars((string)$part, self::QUOTES);
        }
        return new self(vsprintf($template, $parts));
    }

    public static function join(self ...$pieces): self
    {
        return new self(implode('', $pieces));
    }

    public function __toString(): string
    {
        return $this->code;
    }
}
